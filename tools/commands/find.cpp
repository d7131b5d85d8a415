#include "tools/commands/find.h"

#include "tools/cache/cache_use.h"
#include "tools/cache/file_search.h"
#include "tools/cache/install_root.h"
#include "tools/md5_list.h"
#include "tools/text.h"
#include "tools/text/json_output.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <unistd.h>

namespace {

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
bool FindWithProgress(const std::vector<std::string> &vecMD5, std::vector<_FoundDigest> &vecFound,
                      std::string &strError) {
    auto walk = std::async(std::launch::async, [&] { return FindFiles(vecMD5, vecFound, strError); });
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

std::string JsonText(const _FoundDigest &found) {
    Json object;
    object["md5"] = found.strMD5;
    object["state"] = found.HasUnchangedFile() ? "found" : found.bKnown ? "known" : "unknown";
    object["files"] = Json::array();
    for (const _FoundFile &file : found.vecFiles) {
        Json entry;
        PutName(entry, "path", file.strPath);
        entry["changed"] = file.bChanged;
        object["files"].push_back(entry);
    }
    return JsonLine(object);
}

// The list may be meant for another program, so a file that changed since its scan is told on standard error alone.
std::string TextLines(const _FoundDigest &found, bool bNullSeparated) {
    std::string strLines;
    for (const _FoundFile &file : found.vecFiles) {
        if (file.bChanged) {
            PrintMessage(found.strMD5 + ": " + EscapeName(file.strPath) + " has changed since it was scanned");
        } else {
            strLines += bNullSeparated ? file.strPath + '\0' : found.strMD5 + "  " + EscapeName(file.strPath) + "\n";
        }
    }
    if (found.vecFiles.empty()) {
        PrintMessage(found.strMD5 + (found.bKnown ? ": known, but not found on disk" : ": unknown"));
    }
    return strLines;
}

} // namespace

EExitStatus RunFind(const _FindOptions &options) {
    std::string strError;
    std::vector<std::string> vecMD5;
    if (!ReadMD5Arguments(options.vecMD5, vecMD5, strError)) {
        return Fail(strError);
    }
    std::sort(vecMD5.begin(), vecMD5.end());
    vecMD5.erase(std::unique(vecMD5.begin(), vecMD5.end()), vecMD5.end());
    if (vecMD5.empty()) {
        return EExitStatus::Success;
    }
    const CInstallRoot root(options.strRoot);
    root.ExportToLibrary();
    CCacheUse cache;
    std::vector<_FoundDigest> vecFound;
    if (!cache.Start(root, strError) || !FindWithProgress(vecMD5, vecFound, strError)) {
        return Fail(strError);
    }
    EExitStatus eStatus = EExitStatus::Success;
    std::string strOutput;
    for (const _FoundDigest &found : vecFound) {
        strOutput += options.bJson ? JsonText(found) : TextLines(found, options.bNullSeparated);
        if (!found.HasUnchangedFile()) {
            eStatus = EExitStatus::Attention;
        }
    }
    return FinishWith(strOutput, eStatus);
}
