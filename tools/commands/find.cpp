// find: which files on this machine carry these MD5s, as far as the cache knows them.
#include "tools/commands/commands.h"

#include "tools/cache/session.h"
#include "tools/md5_list.h"
#include "tools/text.h"
#include "tools/text/json_output.h"
#include "tools/text/path_argument.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <map>
#include <set>
#include <unistd.h>

namespace {

struct _FoundFile {
    std::string strPath;
    bool bChanged; // since it was scanned: it may carry another MD5 by now
};

struct _Found {
    std::string strMD5;
    std::vector<_FoundFile> vecFiles;
    bool bKnown = false; // has records, whether or not their files were found
};

// What the cache knows of the path, if that is this MD5.
uint32_t StateWith(const std::string &strPath, const std::string &strMD5) {
    std::array<char, TARN_MD5_TEXT_SIZE> md5 = {};
    _SCAN_FILE_RESULT record = {};
    uint32_t ulState = TARN_PEEK_UNKNOWN;
    const bool bDone = LocalCachePeek(strPath.c_str(), md5.data(), &record, &ulState) == TARN_OK;
    return bDone && strMD5 == md5.data() ? ulState : TARN_PEEK_UNKNOWN;
}

// The joined text ends every path with ";", which is also a fair character in a name. A path is taken where another
// absolute one or the end follows and where the cache holds that very name under this MD5; should none fit, the text
// up to the first such place is taken as it is.
std::vector<_FoundFile> SplitPaths(const std::string &strJoined, const std::string &strMD5) {
    std::set<std::string> taken;
    std::vector<_FoundFile> files;
    for (size_t start = 0; start < strJoined.size();) {
        size_t chosen = std::string::npos;
        size_t fallback = strJoined.size();
        uint32_t ulState = TARN_PEEK_UNKNOWN;
        for (size_t end = strJoined.find(';', start);
             end != std::string::npos && end - start < kLongestCachedPath && chosen == std::string::npos;
             end = strJoined.find(';', end + 1)) {
            if (end + 1 != strJoined.size() && strJoined[end + 1] != '/') {
                continue;
            }
            fallback = std::min(fallback, end);
            const std::string strPath = strJoined.substr(start, end - start);
            ulState = taken.contains(strPath) ? TARN_PEEK_UNKNOWN : StateWith(strPath, strMD5);
            if (ulState != TARN_PEEK_UNKNOWN) {
                chosen = end;
            }
        }
        const size_t end = chosen != std::string::npos ? chosen : fallback;
        files.push_back({strJoined.substr(start, end - start), ulState != TARN_PEEK_KNOWN});
        taken.insert(files.back().strPath);
        start = end + 1;
    }
    return files;
}

// The slots that the interface takes: 32 digits and a NUL each.
std::string Slots(const std::vector<std::string> &vecMD5) {
    std::string strSlots;
    for (const std::string &strMD5 : vecMD5) {
        strSlots.append(strMD5.c_str(), TARN_MD5_TEXT_SIZE);
    }
    return strSlots;
}

// Walks the file system. Every path text but the first is the caller's to free, see LocalCacheFree.
bool FindPaths(const std::vector<std::string> &vecMD5, std::vector<_Found> &vecFound) {
    _CacheFileInfo *pRecords = nullptr;
    uint64_t ullCount = 0;
    if (LocalCacheFindFilesByHash(Slots(vecMD5).c_str(), vecMD5.size(), &pRecords, &ullCount) != TARN_OK) {
        return false;
    }
    for (uint64_t index = 0; index < ullCount; ++index) {
        _Found found;
        char *pszPaths = nullptr;
        std::memcpy(&pszPaths, &pRecords[index].pszFilePaths, sizeof pszPaths); // the field is not aligned
        found.strMD5 = pRecords[index].szMD5;
        if (pszPaths != nullptr) {
            found.vecFiles = SplitPaths(pszPaths, found.strMD5);
        }
        found.bKnown = pszPaths != nullptr;
        vecFound.push_back(std::move(found));
        if (index == 0 || pszPaths == nullptr) {
            continue;
        }
        free(pszPaths);
        pszPaths = nullptr;
        std::memcpy(&pRecords[index].pszFilePaths, &pszPaths, sizeof pszPaths);
    }
    LocalCacheFree(pRecords, ullCount);
    return true;
}

// Digests without a path are either unknown, or known from files that are gone. Asking for their flags tells.
bool TellKnown(std::vector<_Found> &vecFound) {
    std::vector<std::string> vecMissing;
    for (const _Found &found : vecFound) {
        if (!found.bKnown) {
            vecMissing.push_back(found.strMD5);
        }
    }
    std::map<std::string, int32_t> flags;
    if (vecMissing.empty()) {
        return true;
    }
    if (LocalCacheLookUpByHashes(Slots(vecMissing).c_str(), vecMissing.size(), flags) != TARN_OK) {
        return false;
    }
    for (_Found &found : vecFound) {
        found.bKnown = found.bKnown || flags.contains(found.strMD5);
    }
    return true;
}

// Where this process is reading: the deepest folder it holds open.
std::string WalkPosition() {
    std::string strDeepest;
    std::error_code error;
    auto entry = std::filesystem::directory_iterator("/proc/self/fd", error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        const std::string strTarget = std::filesystem::read_symlink(entry->path(), ignored).string();
        if (!strTarget.starts_with("/proc/") && strTarget.size() > strDeepest.size() &&
            std::filesystem::is_directory(entry->path(), ignored)) {
            strDeepest = strTarget;
        }
    }
    return strDeepest;
}

// Runs the walk on another thread and shows on a terminal that it goes on, and where.
bool FindWithProgress(const std::vector<std::string> &vecMD5, std::vector<_Found> &vecFound) {
    auto walk = std::async(std::launch::async, [&] { return FindPaths(vecMD5, vecFound) && TellKnown(vecFound); });
    if (isatty(STDERR_FILENO) == 1) {
        const auto start = std::chrono::steady_clock::now();
        while (walk.wait_for(std::chrono::milliseconds(250)) != std::future_status::ready) {
            const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
            const std::string strWhere = EscapeName(WalkPosition()).substr(0, 60);
            (void)std::fprintf(stderr, "\r\033[Klooking, %s: %s", DurationText(passed.count()).c_str(),
                               strWhere.c_str());
        }
        (void)std::fputs("\r\033[K", stderr);
    }
    return walk.get();
}

bool HasUnchanged(const _Found &found) {
    return std::any_of(found.vecFiles.begin(), found.vecFiles.end(), [](const auto &file) { return !file.bChanged; });
}

std::string JsonText(const _Found &found) {
    Json object;
    object["md5"] = found.strMD5;
    object["state"] = HasUnchanged(found) ? "found" : found.bKnown ? "known" : "unknown";
    object["files"] = Json::array();
    for (const _FoundFile &known : found.vecFiles) {
        Json file;
        PutName(file, "path", known.strPath);
        file["changed"] = known.bChanged;
        object["files"].push_back(file);
    }
    return JsonLine(object);
}

// A file that changed since its scan is told apart, and stays out of a list that may be meant for another program.
std::string TextLines(const _Found &found, bool bNullSeparated) {
    std::string strLines;
    for (const _FoundFile &file : found.vecFiles) {
        if (file.bChanged) {
            (void)Trouble(found.strMD5 + ": " + EscapeName(file.strPath) + " has changed since it was scanned");
        } else {
            strLines += bNullSeparated ? file.strPath + '\0' : found.strMD5 + "  " + EscapeName(file.strPath) + "\n";
        }
    }
    return strLines;
}

} // namespace

int RunFind(const _AskOptions &options) {
    std::string strError;
    std::vector<std::string> vecMD5;
    if (!ReadMD5Arguments(options.vecArguments, vecMD5, strError)) {
        return Trouble(strError);
    }
    std::sort(vecMD5.begin(), vecMD5.end());
    vecMD5.erase(std::unique(vecMD5.begin(), vecMD5.end()), vecMD5.end());
    if (vecMD5.empty()) {
        return kExitClean;
    }
    const CInstallRoot root(options.strRoot);
    root.ExportToLibrary();
    CReadOnlyCache cache;
    if (!cache.Start(root, strError)) {
        return Trouble(strError);
    }
    std::vector<_Found> vecFound;
    if (!FindWithProgress(vecMD5, vecFound)) {
        return Trouble("the search failed");
    }
    int status = kExitClean;
    std::string strOutput;
    for (const _Found &found : vecFound) {
        strOutput += options.bJson ? JsonText(found) : TextLines(found, options.bNullSeparated);
        if (HasUnchanged(found)) {
            continue;
        }
        status = kExitFound;
        if (!options.bJson && found.vecFiles.empty()) {
            (void)Trouble(found.strMD5 + (found.bKnown ? ": known, but not found on disk" : ": unknown"));
        }
    }
    return Finish(strOutput, status);
}
