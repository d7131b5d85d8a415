// stats and forget: the two small commands over the stored records.
#include "tools/commands/commands.h"

#include "tools/cache/session.h"
#include "tools/md5_list.h"
#include "tools/text.h"
#include "tools/text/json_output.h"

#include <tarncache.h>

namespace {

bool CountRecords(uint32_t &ulCount) {
    _LOCAL_CACHE_STATISTIC statistic = {};
    const bool bDone = LocalCacheGetStatistic(&statistic) == TARN_OK;
    ulCount = statistic.ulCacheSize;
    return bDone;
}

} // namespace

int RunStats(const _AskOptions &options) {
    const CInstallRoot root(options.strRoot);
    root.ExportToLibrary();
    std::string strError;
    CReadOnlyCache cache;
    if (!cache.Start(root, strError)) {
        return Trouble(strError);
    }
    uint32_t ulRecords = 0;
    if (!CountRecords(ulRecords)) {
        return Trouble("cannot count the records");
    }
    const std::string strPending = PendingText(root);
    if (options.bJson) {
        Json object;
        object["records"] = ulRecords;
        PutName(object, "root", root.Path());
        object["pending"] = strPending;
        return Finish(JsonLine(object), kExitClean);
    }
    std::string strOutput = "Records:             " + std::to_string(ulRecords) + "\n";
    strOutput += "Installation folder: " + EscapeName(root.Path()) + "\n";
    if (!strPending.empty()) {
        strOutput += "Pending:             " + strPending + "\n";
    }
    return Finish(strOutput, kExitClean);
}

int RunForget(const _AskOptions &options) {
    std::string strError;
    std::vector<std::string> vecMD5;
    if (!ReadMD5Arguments(options.vecArguments, vecMD5, strError)) {
        return Trouble(strError);
    }
    const CInstallRoot root(options.strRoot);
    root.ExportToLibrary();
    CReadOnlyCache cache;
    if (!cache.Start(root, strError)) {
        return Trouble(strError);
    }
    uint32_t ulBefore = 0;
    uint32_t ulAfter = 0;
    bool bDone = CountRecords(ulBefore);
    for (const std::string &strMD5 : vecMD5) {
        if (LocalCacheDeleteByFileHash(strMD5.c_str()) != TARN_OK) {
            (void)Trouble("cannot delete the records of " + strMD5);
            bDone = false;
        }
    }
    bDone = CountRecords(ulAfter) && bDone;
    if (!bDone) {
        return Trouble("not all records could be deleted");
    }
    return Finish("Records deleted: " + std::to_string(ulBefore - ulAfter) + "\n", kExitClean);
}
