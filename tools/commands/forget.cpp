#include "tools/commands/forget.h"

#include "tools/cache/cache_use.h"
#include "tools/cache/install_root.h"
#include "tools/text/md5_list.h"

#include <tarncache.h>

#include <algorithm>

namespace {

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

} // namespace

EExitStatus RunForget(const _ForgetOptions &options) {
    std::string strError;
    std::vector<std::string> vecMD5;
    if (!ReadMD5Arguments(options.vecMD5, vecMD5, strError)) {
        return Fail(strError);
    }
    const CInstallRoot root(options.strRoot);
    CCacheUse cache;
    if (!cache.StartForDeletions(root, strError)) {
        return Fail(strError);
    }
    // One that fails does not keep the others.
    uint64_t ullDeleted = 0;
    const auto nFailed = std::count_if(vecMD5.begin(), vecMD5.end(),
                                       [&](const std::string &strMD5) { return !Forget(strMD5, ullDeleted); });
    if (nFailed != 0) {
        return Fail("not all records could be deleted");
    }
    return FinishWith("Records deleted: " + std::to_string(ullDeleted) + "\n", EExitStatus::Success);
}
