#include "tools/cache/file_search.h"
#include "tools/commands/commands.h"
#include "tools/scan/stopwatch.h"
#include "tools/text/json_output.h"
#include "tools/text/md5_list.h"
#include "tools/text/text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <unistd.h>

namespace {

struct _FindOptions {
    std::vector<std::string> vecMD5; // "-" stands for a list on standard input
    std::string strRoot;
    bool bJson = false;
    bool bNullSeparated = false; // paths alone, each ended by a NUL
};

// Shows on a terminal that the search goes on, and where.
class CSearchProgress {
  public:
    CSearchProgress() = default;
    CSearchProgress(const CSearchProgress &) = delete;
    CSearchProgress &operator=(const CSearchProgress &) = delete;
    ~CSearchProgress() {
        if (m_bShown) {
            (void)std::fputs("\r\033[K", stderr);
        }
    }

    void Show(const char *pszFolder) {
        const double seconds = m_stopwatch.Seconds();
        if (!m_bTerminal || seconds < m_nextSeconds) {
            return;
        }
        const std::string strWhere = EscapeName(pszFolder).substr(0, 60);
        (void)std::fprintf(stderr, "\r\033[Klooking, %s: %s", DurationText(seconds).c_str(), strWhere.c_str());
        m_nextSeconds = seconds + kRedraw;
        m_bShown = true;
    }

  private:
    static constexpr double kRedraw = 0.25; // seconds

    const bool m_bTerminal = isatty(STDERR_FILENO) == 1;
    CStopwatch m_stopwatch;
    double m_nextSeconds = kRedraw;
    bool m_bShown = false;
};

bool FindWithProgress(const std::vector<std::string> &vecMD5, std::vector<_FoundDigest> &vecFound,
                      std::string &strError) {
    CSearchProgress progress;
    return FindFiles(
        vecMD5, [&progress](const char *pszFolder) { progress.Show(pszFolder); }, vecFound, strError);
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

EExitStatus FindAll(const std::vector<std::string> &vecMD5, const _FindOptions &options) {
    std::string strError;
    std::vector<_FoundDigest> vecFound;
    if (!FindWithProgress(vecMD5, vecFound, strError)) {
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
    return WithCache(options.strRoot, ECacheUse::Questions,
                     [&](const CInstallRoot &) { return FindAll(vecMD5, options); });
}

} // namespace

_Command AddFind(CLI::App &app) {
    const auto pOptions = std::make_shared<_FindOptions>();
    CLI::App *pLine =
        AddCommandLine(app, "find", "Find the files on this machine that carry these MD5s", pOptions->strRoot);
    AddMD5s(pLine, pOptions->vecMD5);
    pLine->add_flag("--json", pOptions->bJson, "One JSON object a line");
    pLine->add_flag("--null,-0", pOptions->bNullSeparated, "Only the paths, each ended by a NUL byte");
    pLine->footer("Exit status: 0 files found for every MD5, 1 not for all, 2 errors.");
    return {pLine, [pOptions] { return RunFind(*pOptions); }};
}
