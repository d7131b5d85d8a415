// What a scan says: found files and the summary on standard output, everything else on standard error.
#ifndef TARN_TOOLS_SCAN_REPORT_H
#define TARN_TOOLS_SCAN_REPORT_H

#include "tools/engine/verdict.h"
#include "tools/scan/counters.h"
#include "tools/scan/summary.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

struct _ReportOptions {
    bool bJson = false;
    bool bVerbose = false;      // clean files too
    bool bInfectedOnly = false; // no lines about anything but infected files
    bool bQuiet = false;        // no summary, no progress, no notes
};

struct _FileReport {
    std::string strPath;
    _FileVerdict verdict = {};
    uint64_t ullSize = 0; // bytes
    bool bFromCache = false;
    bool bChanged = false; // during the scan
    ENotCached eNotCached = ENotCached::None;
    std::string strError; // for EVerdict::Error
};

// Safe from any thread; one lock keeps lines whole and the progress line out of their way.
class CScanReport {
  public:
    CScanReport(const _ReportOptions &options, _ScanCounters &counters);

    // Reports one file. Counts nothing.
    void File(const _FileReport &file);

    // A file, folder or argument that cannot be read. Counts one error.
    void Problem(const std::string &strPath, const std::string &strError);

    // A remark for the person at the terminal.
    void Note(const std::string &strText);

    // What an operator has to know even of a quiet scan.
    void Warn(const std::string &strText);

    bool ShowsProgress() const { return m_bTerminal; }

    // Rewrites the progress line; does nothing unless standard error is a terminal.
    void Progress(const std::string &strText);

    // Writes out what is buffered. Asks the scan to stop when the reader of the report is gone.
    void Flush();

    void Summary(const _ScanSummary &summary);

    bool IsIncomplete() const { return m_bIncomplete; } // part of the report could not be written

  private:
    // Called with the lock held.
    void WriteOut(std::string_view text);
    void WriteError(const std::string &strText);
    void TellLostOutput(int iError);
    void ClearProgress();

    const _ReportOptions m_options;
    _ScanCounters &m_counters;
    const bool m_bTerminal; // standard error is one, and progress is wanted
    std::mutex m_mutex;     // guards everything below and both streams
    bool m_bProgressShown = false;
    bool m_bIncomplete = false;
};

#endif
