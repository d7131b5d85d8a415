#include "tools/scan/estimate.h"

#include "tools/scan/walker.h"

#include <algorithm>
#include <system_error>

CFileEstimate::CFileEstimate(const std::vector<std::string> &vecPaths, const std::vector<std::string> &vecExclude,
                             const COwnFiles &ownFiles) {
    try {
        m_thread = std::thread([this, &vecPaths, &vecExclude, &ownFiles] { Count(vecPaths, vecExclude, ownFiles); });
    } catch (const std::system_error &) {
        // The progress line then shows no time that is left.
    }
}

CFileEstimate::~CFileEstimate() {
    m_bStop = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

// Keeps silent: the scan itself reports what cannot be read.
void CFileEstimate::Count(const std::vector<std::string> &vecPaths, const std::vector<std::string> &vecExclude,
                          const COwnFiles &ownFiles) {
    const _WalkListener listener = {[this](std::vector<_ScanJob> &vecJobs) {
                                        m_nFound += vecJobs.size();
                                        vecJobs.clear();
                                        return true;
                                    },
                                    [](ESkipped) {}, [](const std::string &, const std::string &) {},
                                    [](const std::string &) {}};
    CTreeWalker walker(vecExclude, ownFiles, m_bStop, listener);
    m_bDone = std::all_of(vecPaths.begin(), vecPaths.end(),
                          [&walker](const std::string &strPath) { return walker.Walk(strPath); });
}
