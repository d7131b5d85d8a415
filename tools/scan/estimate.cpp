#include "tools/scan/estimate.h"

#include "tools/scan/walker.h"

#include <algorithm>
#include <system_error>

namespace {

_ReportOptions Silent() {
    _ReportOptions options;
    options.bInfectedOnly = true;
    options.bQuiet = true;
    return options;
}

} // namespace

CFileEstimate::CFileEstimate(const std::vector<std::string> &vecPaths, const std::vector<std::string> &vecExclude,
                             const COwnFiles &ownFiles)
    : m_report(Silent(), m_counters), m_queue(CJobQueue::kDropJobs) {
    try {
        m_thread = std::thread([this, &vecPaths, &vecExclude, &ownFiles] {
            CTreeWalker walker(vecExclude, ownFiles, m_bStop, m_queue, m_report, m_counters);
            m_bDone = std::all_of(vecPaths.begin(), vecPaths.end(),
                                  [&walker](const std::string &strPath) { return walker.Walk(strPath); });
        });
    } catch (const std::system_error &) {
    }
}

CFileEstimate::~CFileEstimate() {
    m_bStop = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
}
