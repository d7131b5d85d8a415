#include "tools/commands/stats.h"

#include "tools/cache/cache_use.h"
#include "tools/cache/install_root.h"
#include "tools/text/json_output.h"
#include "tools/text/text.h"

#include <tarncache.h>

namespace {

std::string StatsJson(const CInstallRoot &root, uint64_t ullRecords) {
    Json object;
    object["records"] = ullRecords;
    PutName(object, "root", root.Path());
    object["pending"] = PendingText(root);
    return JsonLine(object);
}

std::string StatsText(const CInstallRoot &root, uint64_t ullRecords) {
    std::string strText = "Records:             " + std::to_string(ullRecords) + "\n";
    strText += "Installation folder: " + EscapeName(root.Path()) + "\n";
    const std::string strPending = PendingText(root);
    return strPending.empty() ? strText : strText + "Pending:             " + strPending + "\n";
}

} // namespace

EExitStatus RunStats(const _StatsOptions &options) {
    const CInstallRoot root(options.strRoot);
    std::string strError;
    CCacheUse cache;
    if (!cache.StartForQuestions(root, strError)) {
        return Fail(strError);
    }
    _LOCAL_CACHE_INFO info = {};
    info.size = sizeof info;
    if (const uint32_t ulCode = LocalCacheGetInfo(&info); ulCode != TARN_OK) {
        return Fail(std::string("cannot count the records: ") + LocalCacheErrorText(ulCode));
    }
    return FinishWith(options.bJson ? StatsJson(root, info.ullRecords) : StatsText(root, info.ullRecords),
                      EExitStatus::Success);
}
