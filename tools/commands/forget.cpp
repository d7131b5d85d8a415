#include "tools/commands/forget.h"

#include "tools/cache/cache_use.h"
#include "tools/cache/install_root.h"
#include "tools/md5_list.h"

#include <tarncache.h>

namespace {

// Goes on after a failure, so that as much as possible is forgotten.
bool DeleteAll(const std::vector<std::string> &vecMD5) {
    bool bDone = true;
    for (const std::string &strMD5 : vecMD5) {
        if (LocalCacheDeleteByFileHash(strMD5.c_str()) != TARN_OK) {
            PrintMessage("cannot delete the records of " + strMD5);
            bDone = false;
        }
    }
    return bDone;
}

} // namespace

EExitStatus RunForget(const _ForgetOptions &options) {
    std::string strError;
    std::vector<std::string> vecMD5;
    if (!ReadMD5Arguments(options.vecMD5, vecMD5, strError)) {
        return Fail(strError);
    }
    const CInstallRoot root(options.strRoot);
    root.ExportToLibrary();
    CCacheUse cache;
    if (!cache.Start(root, strError)) {
        return Fail(strError);
    }
    uint32_t ulBefore = 0;
    uint32_t ulAfter = 0;
    bool bDone = CountRecords(ulBefore, strError);
    bDone = DeleteAll(vecMD5) && bDone;
    bDone = CountRecords(ulAfter, strError) && bDone;
    if (!bDone) {
        return Fail("not all records could be deleted");
    }
    return FinishWith("Records deleted: " + std::to_string(ulBefore - ulAfter) + "\n", EExitStatus::Success);
}
