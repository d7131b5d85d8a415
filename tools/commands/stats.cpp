#include "tools/commands/stats.h"

#include "tools/cache/cache_use.h"
#include "tools/cache/install_root.h"
#include "tools/text.h"
#include "tools/text/json_output.h"

EExitStatus RunStats(const _StatsOptions &options) {
    const CInstallRoot root(options.strRoot);
    root.ExportToLibrary();
    std::string strError;
    CCacheUse cache;
    uint32_t ulRecords = 0;
    if (!cache.Start(root, strError) || !CountRecords(ulRecords, strError)) {
        return Fail(strError);
    }
    const std::string strPending = PendingText(root);
    if (options.bJson) {
        Json object;
        object["records"] = ulRecords;
        PutName(object, "root", root.Path());
        object["pending"] = strPending;
        return FinishWith(JsonLine(object), EExitStatus::Success);
    }
    std::string strOutput = "Records:             " + std::to_string(ulRecords) + "\n";
    strOutput += "Installation folder: " + EscapeName(root.Path()) + "\n";
    if (!strPending.empty()) {
        strOutput += "Pending:             " + strPending + "\n";
    }
    return FinishWith(strOutput, EExitStatus::Success);
}
