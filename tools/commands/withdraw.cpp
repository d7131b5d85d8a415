// withdraw: what an updater does to take verdicts on single files back. Leaves the enciphered list and its marker for
// the next start of the cache.
#include "tools/commands/commands.h"

#include "formats/update_list.h"
#include "tools/atomic_file.h"
#include "tools/business_key.h"
#include "tools/cache/install_root.h"
#include "tools/file_lock.h"
#include "tools/md5_list.h"
#include "tools/scan/interrupt.h"
#include "tools/text.h"
#include "tools/withdrawn_list.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>

namespace {

constexpr size_t kLongestVersion = kVersionIdSize - 1; // bytes; the cache cuts more
constexpr std::string_view kVersionName = "tarncache:";

// A list that the cache has not taken yet must not be lost: its digests join the new ones. False when there is one
// that does not open or is not of this program's making; nobody but the operator can tell then what it is.
bool TakePending(const CInstallRoot &root, std::vector<std::string> &vecMD5, std::string &strError) {
    std::string strDigests;
    bool bMissing = false;
    if (!ReadPendingList(root, strDigests, bMissing, strError)) {
        return bMissing;
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

} // namespace

int RunWithdraw(const _WithdrawOptions &options) {
    if (options.strVersion.empty() || options.strVersion.size() > kLongestVersion ||
        options.strVersion.find_first_of("\r\n") != std::string::npos) {
        return Trouble("--engine-version takes 1 to 99 bytes without a line end");
    }
    std::string strError;
    std::string strKey;
    std::vector<std::string> vecMD5;
    if (!ReadList(options.strList, vecMD5, strError)) {
        return Trouble(strError);
    }
    if (vecMD5.empty()) {
        return Finish("Nothing to withdraw.\n", kExitClean);
    }
    const CInstallRoot root(options.strRoot);
    if (!root.Prepare(strError) || !EnsureBusinessKey(root.KeyFile(), strError) ||
        !ReadBusinessKey(root.KeyFile(), strKey, strError)) {
        return Trouble(strError);
    }
    // A scan that takes an earlier list removes what lies in its place afterwards.
    CFileLock lock;
    const auto note = [] { (void)Trouble("waiting for a scan that takes an earlier list"); };
    if (lock.Take(root.UpdateLock(), CInterrupt::StopFlag(), note, strError) != ELock::Taken ||
        !TakePending(root, vecMD5, strError)) {
        return Trouble(strError);
    }
    std::sort(vecMD5.begin(), vecMD5.end());
    vecMD5.erase(std::unique(vecMD5.begin(), vecMD5.end()), vecMD5.end());
    std::string strText = ListText(options.strVersion, vecMD5);
    if (strText.size() > kMaxUpdateListSize) {
        return Trouble("the list is too long; withdraw it in parts, with a scan between them");
    }
    EncipherList(strKey, strText);
    // The list first: whoever sees the marker has to find the list.
    if (!WriteFileAtomically(root.WithdrawnList(), strText, 0600, EExisting::Replace, strError) ||
        !WriteFileAtomically(root.HashMarker(), "", 0600, EExisting::Replace, strError)) {
        return Trouble(strError);
    }
    return Finish("Digests to withdraw at the next scan: " + std::to_string(vecMD5.size()) + "\n", kExitClean);
}
