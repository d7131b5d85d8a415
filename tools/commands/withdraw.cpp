#include "formats/update_list.h"
#include "tools/cache/business_key.h"
#include "tools/cache/file_lock.h"
#include "tools/cache/install_root.h"
#include "tools/cache/small_file.h"
#include "tools/cache/withdrawn_list.h"
#include "tools/commands/commands.h"
#include "tools/text/md5_list.h"
#include "tools/text/text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

namespace {

struct _WithdrawOptions {
    std::string strRoot;
    std::string strVersion; // of the engine update
    std::string strList;    // a file; empty and "-" stand for standard input
};

constexpr size_t kLongestVersion = kVersionIdSize - 1; // bytes; the cache cuts more
constexpr std::string_view kVersionName = "tarncache:";

// A list that the cache has not taken yet must not be lost, so its digests join the new ones. False when there is one
// that does not open or is not of this program's making: only the operator can tell then what it is.
bool AddPending(const CInstallRoot &root, std::vector<std::string> &vecMD5, std::string &strError) {
    std::string strDigests;
    const EReadFile eFile = ReadPendingList(root, strDigests, strError);
    if (eFile != EReadFile::Read) {
        return eFile == EReadFile::Missing;
    }
    std::istringstream lines(strDigests);
    if (ReadMD5Lines(lines, "pending list", vecMD5, strError)) {
        return true;
    }
    strError =
        EscapeName(root.WithdrawnList()) + " is pending and holds more than MD5s; let a scan take it, or remove it";
    return false;
}

bool ReadList(const std::string &strList, std::vector<std::string> &vecMD5, std::string &strError) {
    if (strList.empty() || strList == "-") {
        return ReadMD5Lines(std::cin, "standard input", vecMD5, strError);
    }
    std::ifstream file(strList);
    if (file) {
        return ReadMD5Lines(file, EscapeName(strList), vecMD5, strError);
    }
    strError = "cannot read " + ErrnoText(strList, errno);
    return false;
}

std::string ListText(const std::string &strVersion, const std::vector<std::string> &vecMD5) {
    std::string strText = std::string(kVersionName) + strVersion + "\n";
    for (const std::string &strMD5 : vecMD5) {
        strText += strMD5 + "\n";
    }
    return strText;
}

bool LeaveList(const CInstallRoot &root, const std::string &strVersion, const std::vector<std::string> &vecMD5,
               std::string &strError) {
    std::string strKey;
    if (!ReadBusinessKey(root.KeyFile(), strKey, strError)) {
        return false;
    }
    std::string strText = ListText(strVersion, vecMD5);
    if (strText.size() > kMaxUpdateListSize) {
        strError = "the list is too long; withdraw it in parts, with a scan between them";
        return false;
    }
    EncipherList(strKey, strText);
    // The list comes first: whoever sees the marker has to find the list.
    return WriteSmallFile(root.WithdrawnList(), strText, 0600, EExisting::Replace, strError) &&
           WriteSmallFile(root.HashMarker(), "", 0600, EExisting::Replace, strError);
}

EExitStatus RunWithdraw(const _WithdrawOptions &options) {
    if (options.strVersion.empty() || options.strVersion.size() > kLongestVersion ||
        options.strVersion.find_first_of("\r\n") != std::string::npos) {
        return Fail("--engine-version takes 1 to 99 bytes without a line end");
    }
    std::string strError;
    std::vector<std::string> vecMD5;
    if (!ReadList(options.strList, vecMD5, strError)) {
        return Fail(strError);
    }
    if (vecMD5.empty()) {
        return FinishWith("Nothing to withdraw.\n", EExitStatus::Success);
    }
    const CInstallRoot root(options.strRoot);
    if (!root.Prepare(strError) || !EnsureBusinessKey(root.KeyFile(), strError)) {
        return Fail(strError);
    }
    // A scan that takes an earlier list removes what lies in its place afterwards.
    CFileLock lock;
    const std::atomic<bool> bNeverStop = false; // a signal ends this command at once
    const auto note = [] { PrintMessage("waiting for a scan that takes an earlier list"); };
    if (!lock.Take(root.UpdateLock(), bNeverStop, note, strError) || !AddPending(root, vecMD5, strError)) {
        return Fail(strError);
    }
    std::sort(vecMD5.begin(), vecMD5.end());
    vecMD5.erase(std::unique(vecMD5.begin(), vecMD5.end()), vecMD5.end());
    if (!LeaveList(root, options.strVersion, vecMD5, strError)) {
        return Fail(strError);
    }
    return FinishWith("Digests to withdraw at the next scan: " + std::to_string(vecMD5.size()) + "\n",
                      EExitStatus::Success);
}

} // namespace

_Command AddWithdraw(CLI::App &app) {
    const auto pOptions = std::make_shared<_WithdrawOptions>();
    CLI::App *pLine = AddCommandLine(
        app, "withdraw", "Leave a list of MD5s whose verdicts the next scan drops (updater's side)", pOptions->strRoot);
    pLine->add_option("--engine-version", pOptions->strVersion, "Version of the engine update, at most 99 bytes")
        ->type_name("TEXT")
        ->required();
    pLine->add_option("LIST", pOptions->strList, "File with one MD5 a line (default: standard input)")->type_name("");
    return {pLine, [pOptions] { return RunWithdraw(*pOptions); }};
}
