#include "tools/scan/report.h"

#include "tools/scan/interrupt.h"
#include "tools/text/json_output.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <unistd.h>

namespace {

std::string TextLine(const _FileReport &file) {
    const std::string strPath = EscapeName(file.strPath);
    switch (file.verdict.eVerdict) {
    case EVerdict::Infected:
        return strPath + ": " + EscapeName(file.verdict.strName) + " FOUND\n";
    case EVerdict::Clean:
        return strPath + ": OK\n";
    case EVerdict::Error:
        return strPath + ": " + file.strError + "\n";
    default:
        return strPath + ": " + VerdictName(file.verdict.eVerdict) + ", not fully scanned\n";
    }
}

Json JsonObject(const _FileReport &file) {
    Json object;
    object["type"] = "file";
    PutName(object, "path", file.strPath);
    object["verdict"] = VerdictName(file.verdict.eVerdict);
    if (file.verdict.eVerdict == EVerdict::Infected) {
        PutName(object, "name", file.verdict.strName);
    }
    if (file.verdict.eVerdict == EVerdict::Error) {
        object["error"] = file.strError;
    }
    if (!file.verdict.strMD5.empty()) {
        object["md5"] = file.verdict.strMD5;
    }
    object["file_type"] = TypeName(file.verdict.eType);
    object["size"] = file.ullSize;
    object["from_cache"] = file.bFromCache;
    if (file.eNotCached != ENotCached::Cached) {
        object["not_cached"] = kNotCachedTexts[static_cast<size_t>(file.eNotCached)].pszKey;
    }
    return object;
}

std::string SummaryLine(const std::string &strLabel, const std::string &strValue) {
    constexpr size_t column = 28;
    std::string strLine = strLabel + ":";
    strLine.resize(strLine.size() < column ? column : strLine.size() + 1, ' ');
    return strLine + strValue + "\n";
}

// The sum of the reasons, and each reason that occurred.
template <size_t nReasons>
std::string ReasonLines(const std::string &strLabel, const std::array<_ReasonText, nReasons> &texts,
                        const std::array<std::atomic<uint64_t>, nReasons> &counts) {
    uint64_t nSum = 0;
    std::string strLines;
    for (size_t index = 0; index < nReasons; ++index) {
        nSum += counts[index];
        if (counts[index] != 0) {
            strLines += SummaryLine(std::string("  ") + texts[index].pszText, std::to_string(counts[index].load()));
        }
    }
    return SummaryLine(strLabel, std::to_string(nSum)) + strLines;
}

template <size_t nReasons>
Json ReasonObject(const std::array<_ReasonText, nReasons> &texts,
                  const std::array<std::atomic<uint64_t>, nReasons> &counts) {
    Json reasons = Json::object();
    for (size_t index = 0; index < nReasons; ++index) {
        if (*texts[index].pszKey != '\0') {
            reasons[texts[index].pszKey] = counts[index].load();
        }
    }
    return reasons;
}

std::string SecondsText(double seconds) {
    std::string strText = std::to_string(seconds);
    return strText.substr(0, strText.find('.') + 4) + " s";
}

} // namespace

CScanReport::CScanReport(const _ReportOptions &options, _ScanCounters &counters)
    : m_options(options), m_counters(counters), m_bTerminal(!options.bQuiet && isatty(STDERR_FILENO) == 1) {}

void CScanReport::File(const _FileReport &file) {
    const EVerdict eVerdict = file.verdict.eVerdict;
    const bool bInfected = eVerdict == EVerdict::Infected;
    const bool bProblem = !bInfected && eVerdict != EVerdict::Clean && eVerdict != EVerdict::Interrupted;
    const bool bWanted = bInfected || (!m_options.bInfectedOnly && (bProblem || m_options.bVerbose));
    if (!bWanted) {
        return;
    }
    const std::string strLine = m_options.bJson ? JsonLine(JsonObject(file)) : TextLine(file);
    const std::lock_guard lock(m_mutex);
    if (bProblem && !m_options.bJson) {
        Err(strLine);
        return;
    }
    Out(strLine);
}

void CScanReport::Problem(const std::string &strPath, int error) {
    ++m_counters.nErrors;
    if (m_options.bInfectedOnly) {
        return;
    }
    const std::lock_guard lock(m_mutex);
    if (!m_options.bJson) {
        Err(ErrnoText(strPath, error) + "\n");
        return;
    }
    Json object;
    object["type"] = "error";
    PutName(object, "path", strPath);
    object["error"] = std::generic_category().message(error);
    Out(JsonLine(object));
}

void CScanReport::Note(const std::string &strText) {
    if (!m_options.bQuiet) {
        Warn(strText);
    }
}

void CScanReport::Warn(const std::string &strText) {
    const std::lock_guard lock(m_mutex);
    Err("tarncache: " + strText + "\n");
}

void CScanReport::Progress(const std::string &strText) {
    if (!m_bTerminal) {
        return;
    }
    const std::lock_guard lock(m_mutex);
    (void)std::fputs(("\r\033[K" + strText).c_str(), stderr);
    (void)std::fflush(stderr);
    m_bProgressShown = !strText.empty();
}

void CScanReport::ClearProgress() {
    if (!m_bProgressShown) {
        return;
    }
    (void)std::fputs("\r\033[K", stderr);
    (void)std::fflush(stderr);
    m_bProgressShown = false;
}

void CScanReport::Out(std::string_view text) {
    ClearProgress();
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        Lose(errno);
    }
}

void CScanReport::Lose(int error) {
    if (m_bLost) {
        return;
    }
    m_bLost = true;
    Err("tarncache: the report cannot be written: " + std::generic_category().message(error) + "\n");
    if (error == EPIPE) {
        CInterrupt::RequestStop();
    }
}

void CScanReport::Err(const std::string &strText) {
    ClearProgress();
    (void)std::fputs(strText.c_str(), stderr);
}

void CScanReport::Flush() {
    const std::lock_guard lock(m_mutex);
    if (std::fflush(stdout) != 0) {
        Lose(errno);
    }
}

void CScanReport::Summary(const _ScanSummary &summary) {
    if (m_options.bQuiet) {
        return;
    }
    const std::lock_guard lock(m_mutex);
    if (m_options.bJson) {
        JsonSummary(summary);
    } else {
        TextSummary(summary);
    }
}

void CScanReport::TextSummary(const _ScanSummary &summary) {
    const auto count = [](const std::atomic<uint64_t> &value) { return std::to_string(value.load()); };
    const bool bCached = summary.strCacheOff.empty();
    std::string strText = !summary.bInterrupted ? "\n"
                          : bCached             ? "\nInterrupted; what was scanned so far is kept.\n"
                                                : "\nInterrupted.\n";
    strText += SummaryLine("Files", count(m_counters.nFiles));
    strText += SummaryLine("Answered from the cache", count(m_counters.nFromCache));
    strText += SummaryLine("Scanned", count(m_counters.nScanned));
    strText += SummaryLine("Infected", count(m_counters.nInfected));
    strText += SummaryLine("Errors", count(m_counters.nErrors));
    strText += SummaryLine("Limit exceeded", count(m_counters.nLimitExceeded));
    strText += ReasonLines("Skipped", kSkippedTexts, m_counters.skipped);
    strText += ReasonLines("Not cached", kNotCachedTexts, m_counters.notCached);
    strText += SummaryLine("Bytes read", BytesText(m_counters.ullBytesRead));
    strText += SummaryLine("Bytes not read", BytesText(m_counters.ullBytesNotRead));
    strText += SummaryLine("Time", SecondsText(summary.scanSeconds));
    strText += SummaryLine("Cache", bCached ? EscapeName(summary.strRoot) : "not used: " + summary.strCacheOff);
    strText +=
        SummaryLine("Signatures", std::to_string(summary.nSignatures) + " from " + EscapeName(summary.strSignatures) +
                                      ", loaded in " + SecondsText(summary.loadSeconds));
    Out(strText);
}

void CScanReport::JsonSummary(const _ScanSummary &summary) {
    Json object;
    object["type"] = "summary";
    object["files"] = m_counters.nFiles.load();
    object["from_cache"] = m_counters.nFromCache.load();
    object["scanned"] = m_counters.nScanned.load();
    object["infected"] = m_counters.nInfected.load();
    object["errors"] = m_counters.nErrors.load();
    object["timed_out"] = m_counters.nTimedOut.load();
    object["limit_exceeded"] = m_counters.nLimitExceeded.load();
    object["skipped"] = ReasonObject(kSkippedTexts, m_counters.skipped);
    object["not_cached"] = ReasonObject(kNotCachedTexts, m_counters.notCached);
    object["bytes_read"] = m_counters.ullBytesRead.load();
    object["bytes_not_read"] = m_counters.ullBytesNotRead.load();
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
    Out(JsonLine(object));
}
