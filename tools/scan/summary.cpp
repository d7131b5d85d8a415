#include "tools/scan/summary.h"

#include "tools/text/json_output.h"
#include "tools/text/text.h"

#include <array>
#include <atomic>

namespace {

std::string SummaryLine(const std::string &strLabel, const std::string &strValue) {
    constexpr size_t kColumn = 28;
    std::string strLine = strLabel + ":";
    strLine.resize(strLine.size() < kColumn ? kColumn : strLine.size() + 1, ' ');
    return strLine + strValue + "\n";
}

// The sum of the reasons, and each reason that occurred.
template <size_t nReasons>
std::string ReasonLines(const std::string &strLabel, const std::array<_ReasonText, nReasons> &texts,
                        const std::array<std::atomic<uint64_t>, nReasons> &counts) {
    uint64_t nSum = 0;
    std::string strLines;
    for (size_t nIndex = 0; nIndex < nReasons; ++nIndex) {
        nSum += counts[nIndex];
        if (counts[nIndex] != 0) {
            strLines += SummaryLine(std::string("  ") + texts[nIndex].pszText, std::to_string(counts[nIndex].load()));
        }
    }
    return SummaryLine(strLabel, std::to_string(nSum)) + strLines;
}

template <size_t nReasons>
Json ReasonObject(const std::array<_ReasonText, nReasons> &texts,
                  const std::array<std::atomic<uint64_t>, nReasons> &counts) {
    Json reasons = Json::object();
    for (size_t nIndex = 0; nIndex < nReasons; ++nIndex) {
        if (*texts[nIndex].pszKey != '\0') {
            reasons[texts[nIndex].pszKey] = counts[nIndex].load();
        }
    }
    return reasons;
}

std::string SecondsText(double seconds) {
    std::string strText = std::to_string(seconds);
    return strText.substr(0, strText.find('.') + 4) + " s";
}

} // namespace

std::string SummaryText(const _ScanSummary &summary, const _ScanCounters &counters) {
    const auto count = [](const std::atomic<uint64_t> &value) { return std::to_string(value.load()); };
    const bool bCached = summary.strCacheOff.empty();
    std::string strText = !summary.bInterrupted ? "\n"
                          : bCached             ? "\nInterrupted; what was scanned so far is kept.\n"
                                                : "\nInterrupted.\n";
    strText += SummaryLine("Files", count(counters.nFiles));
    strText += SummaryLine("Answered from the cache", count(counters.nFromCache));
    strText += SummaryLine("Scanned", count(counters.nScanned));
    strText += SummaryLine("Infected", count(counters.nInfected));
    strText += SummaryLine("Errors", count(counters.nErrors));
    strText += SummaryLine("Changed during the scan", count(counters.nChanged));
    strText += SummaryLine("Limit exceeded", count(counters.nLimitExceeded));
    strText += ReasonLines("Skipped", kSkippedTexts, counters.skipped);
    strText += ReasonLines("Not cached", kNotCachedTexts, counters.notCached);
    strText += SummaryLine("Bytes read", BytesText(counters.ullBytesRead));
    strText += SummaryLine("Bytes not read", BytesText(counters.ullBytesNotRead));
    strText += SummaryLine("Time", SecondsText(summary.scanSeconds));
    strText += SummaryLine("Cache", bCached ? EscapeName(summary.strRoot) : "not used: " + summary.strCacheOff);
    strText +=
        SummaryLine("Signatures", std::to_string(summary.nSignatures) + " from " + EscapeName(summary.strSignatures) +
                                      ", loaded in " + SecondsText(summary.loadSeconds));
    return strText;
}

std::string SummaryJson(const _ScanSummary &summary, const _ScanCounters &counters) {
    Json object;
    object["type"] = "summary";
    object["files"] = counters.nFiles.load();
    object["from_cache"] = counters.nFromCache.load();
    object["scanned"] = counters.nScanned.load();
    object["infected"] = counters.nInfected.load();
    object["errors"] = counters.nErrors.load();
    object["changed"] = counters.nChanged.load();
    object["timed_out"] = counters.nTimedOut.load();
    object["limit_exceeded"] = counters.nLimitExceeded.load();
    object["skipped"] = ReasonObject(kSkippedTexts, counters.skipped);
    object["not_cached"] = ReasonObject(kNotCachedTexts, counters.notCached);
    object["bytes_read"] = counters.ullBytesRead.load();
    object["bytes_not_read"] = counters.ullBytesNotRead.load();
    object["seconds"] = summary.scanSeconds;
    object["interrupted"] = summary.bInterrupted;
    object["cache_used"] = summary.strCacheOff.empty();
    if (summary.strCacheOff.empty()) {
        PutName(object, "root", summary.strRoot);
    } else {
        object["cache_off"] = summary.strCacheOff;
    }
    object["signatures"] = summary.nSignatures;
    PutName(object, "signature_set", summary.strSignatures);
    object["test_signatures_only"] = summary.bTestSignatures;
    object["load_seconds"] = summary.loadSeconds;
    return JsonLine(object);
}
