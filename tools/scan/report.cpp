#include "tools/scan/report.h"

#include "tools/scan/interrupt.h"
#include "tools/text/json_output.h"
#include "tools/text/text.h"

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <unistd.h>

namespace {

constexpr const char *kChangedText = ": changed during the scan\n";

std::string TextLine(const _FileReport &file) {
    const std::string strPath = EscapeName(file.strPath);
    switch (file.verdict.eVerdict) {
    case EVerdict::Infected:
        return strPath + ": " + EscapeName(file.verdict.strName) + " FOUND\n";
    case EVerdict::Clean:
        return strPath + ": OK\n";
    case EVerdict::Error:
        return strPath + ": " + file.strError + "\n";
    case EVerdict::Changed:
        return strPath + kChangedText;
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
    if (file.bChanged) {
        object["changed"] = true;
    }
    if (file.eNotCached != ENotCached::None) {
        object["not_cached"] = kNotCachedTexts[static_cast<size_t>(file.eNotCached)].pszKey;
    }
    return object;
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
        WriteError(strLine);
        return;
    }
    WriteOut(strLine);
    if (bInfected && file.bChanged && !m_options.bJson && !m_options.bInfectedOnly) {
        WriteError(EscapeName(file.strPath) + kChangedText); // the line of a found file stays as programs know it
    }
}

void CScanReport::Problem(const std::string &strPath, const std::string &strError) {
    ++m_counters.nErrors;
    if (m_options.bInfectedOnly) {
        return;
    }
    const std::lock_guard lock(m_mutex);
    if (!m_options.bJson) {
        WriteError(EscapeName(strPath) + ": " + strError + "\n");
        return;
    }
    Json object;
    object["type"] = "error";
    PutName(object, "path", strPath);
    object["error"] = strError;
    WriteOut(JsonLine(object));
}

void CScanReport::Note(const std::string &strText) {
    if (!m_options.bQuiet) {
        Warn(strText);
    }
}

void CScanReport::Warn(const std::string &strText) {
    const std::lock_guard lock(m_mutex);
    WriteError("tarncache: " + strText + "\n");
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

void CScanReport::WriteOut(std::string_view text) {
    ClearProgress();
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        TellLostOutput(errno);
    }
}

void CScanReport::TellLostOutput(int iError) {
    if (m_bIncomplete) {
        return;
    }
    m_bIncomplete = true;
    WriteError("tarncache: the report cannot be written: " + std::generic_category().message(iError) + "\n");
    if (iError == EPIPE) {
        CInterrupt::RequestStop();
    }
}

void CScanReport::WriteError(const std::string &strText) {
    ClearProgress();
    (void)std::fputs(strText.c_str(), stderr);
}

void CScanReport::Flush() {
    const std::lock_guard lock(m_mutex);
    if (std::fflush(stdout) != 0) {
        TellLostOutput(errno);
    }
}

void CScanReport::Summary(const _ScanSummary &summary) {
    if (m_options.bQuiet) {
        return;
    }
    const std::lock_guard lock(m_mutex);
    WriteOut(m_options.bJson ? SummaryJson(summary, m_counters) : SummaryText(summary, m_counters));
}
