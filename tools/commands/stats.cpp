#include "tools/commands/commands.h"
#include "tools/text/json_output.h"
#include "tools/text/text.h"

#include <CLI/CLI.hpp>
#include <tarncache.h>

#include <memory>

namespace {

struct _StatsOptions {
    std::string strRoot;
    bool bJson = false;
};

std::string StatsJson(const CInstallRoot &root, const _LOCAL_CACHE_INFO &info) {
    Json object;
    object["records"] = info.ullRecords;
    object["protect"] = info.ulIdentity != 0;
    PutName(object, "root", root.Path());
    object["pending"] = PendingText(root);
    return JsonLine(object);
}

std::string StatsText(const CInstallRoot &root, const _LOCAL_CACHE_INFO &info) {
    std::string strText = "Records:             " + std::to_string(info.ullRecords) + "\n";
    strText += "Installation folder: " + EscapeName(root.Path()) + "\n";
    strText += "Protection:          ";
    strText += info.ulIdentity != 0 ? "on\n" : std::string("off (key protect in ") + FromRoot(kConfigPath) + ")\n";
    const std::string strPending = PendingText(root);
    return strPending.empty() ? strText : strText + "Pending:             " + strPending + "\n";
}

EExitStatus ShowStats(const CInstallRoot &root, bool bJson) {
    _LOCAL_CACHE_INFO info = {};
    info.size = sizeof info;
    if (const uint32_t ulCode = LocalCacheGetInfo(&info); ulCode != TARN_OK) {
        return Fail(std::string("cannot count the records: ") + LocalCacheErrorText(ulCode));
    }
    return FinishWith(bJson ? StatsJson(root, info) : StatsText(root, info), EExitStatus::Success);
}

} // namespace

_Command AddStats(CLI::App &app) {
    const auto pOptions = std::make_shared<_StatsOptions>();
    CLI::App *pLine = AddCommandLine(app, "stats", "Count the records of the cache", pOptions->strRoot);
    pLine->add_flag("--json", pOptions->bJson, "One JSON object");
    return {pLine, [pOptions] {
                return WithCache(pOptions->strRoot, ECacheUse::Questions,
                                 [&](const CInstallRoot &root) { return ShowStats(root, pOptions->bJson); });
            }};
}
