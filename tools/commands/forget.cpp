#include "tools/commands/commands.h"
#include "tools/text/md5_list.h"

#include <CLI/CLI.hpp>
#include <tarncache.h>

#include <algorithm>
#include <memory>

namespace {

struct _ForgetOptions {
    std::vector<std::string> vecMD5; // "-" stands for a list on standard input
    std::string strRoot;
};

// Counts the records before it deletes them. False when that fails, with a text on standard error.
bool Forget(const std::string &strMD5, uint64_t &ullDeleted) {
    uint64_t ullCount = 0;
    uint32_t ulCode = LocalCacheCountByFileHash(strMD5.c_str(), &ullCount);
    if (ulCode == TARN_OK) {
        ulCode = LocalCacheDeleteByFileHash(strMD5.c_str());
    }
    if (ulCode != TARN_OK) {
        PrintMessage("cannot delete the records of " + strMD5 + ": " + LocalCacheErrorText(ulCode));
        return false;
    }
    ullDeleted += ullCount;
    return true;
}

EExitStatus ForgetAll(const std::vector<std::string> &vecMD5) {
    // One that fails does not keep the others.
    uint64_t ullDeleted = 0;
    const auto nFailed = std::count_if(vecMD5.begin(), vecMD5.end(),
                                       [&](const std::string &strMD5) { return !Forget(strMD5, ullDeleted); });
    if (nFailed != 0) {
        return Fail("not all records could be deleted");
    }
    return FinishWith("Records deleted: " + std::to_string(ullDeleted) + "\n", EExitStatus::Success);
}

EExitStatus RunForget(const _ForgetOptions &options) {
    std::string strError;
    std::vector<std::string> vecMD5;
    if (!ReadMD5Arguments(options.vecMD5, vecMD5, strError)) {
        return Fail(strError);
    }
    return WithCache(options.strRoot, ECacheUse::Deletions, [&](const CInstallRoot &) { return ForgetAll(vecMD5); });
}

} // namespace

_Command AddForget(CLI::App &app) {
    const auto pOptions = std::make_shared<_ForgetOptions>();
    CLI::App *pLine = AddCommandLine(app, "forget", "Delete the records of files with these MD5s", pOptions->strRoot);
    AddMD5s(pLine, pOptions->vecMD5);
    return {pLine, [pOptions] { return RunForget(*pOptions); }};
}
