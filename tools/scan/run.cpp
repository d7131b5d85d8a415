#include "tools/scan/run.h"

#include "tools/scan/estimate.h"
#include "tools/scan/interrupt.h"
#include "tools/scan/stopwatch.h"
#include "tools/scan/walker.h"
#include "tools/text/text.h"

#include <algorithm>
#include <memory>
#include <new>
#include <optional>
#include <sys/resource.h>
#include <system_error>

namespace {

constexpr int kRedraw = 200; // milliseconds between two looks of the monitor
constexpr rlim_t kManyFiles = 65536;

// Every level of a deep tree keeps a folder open.
void AllowManyFiles() {
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kManyFiles) {
        limit.rlim_cur = std::min(limit.rlim_max, kManyFiles);
        (void)setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// nTotal: the files to come in all, 0 while nobody knows.
std::string ProgressText(const _ScanCounters &counters, uint64_t nTotal, double seconds) {
    const uint64_t nDone = counters.nFiles.load();
    const double rate = seconds > 0 ? static_cast<double>(nDone) / seconds : 0;
    std::string strText = std::to_string(nDone) + " files, " + std::to_string(static_cast<uint64_t>(rate)) + "/s, " +
                          std::to_string(counters.nInfected.load()) + " infected";
    if (rate > 0 && nTotal > nDone) {
        strText += ", " + DurationText(static_cast<double>(nTotal - nDone) / rate) + " left";
    }
    return strText;
}

} // namespace

bool CScanRun::Run(const CScanEngine &engine, std::string &strError) {
    AllowManyFiles();
    std::vector<std::thread> vecThreads;
    const bool bStarted = StartThreads(engine, vecThreads);
    if (!bStarted) {
        CInterrupt::RequestStop(); // for those that did start
        strError = "cannot start the worker threads";
    }
    Watch();
    for (std::thread &thread : vecThreads) {
        thread.join();
    }
    m_shared.report.Progress("");
    if (m_bOutOfMemory) {
        strError = "out of memory";
    }
    return bStarted && !m_bOutOfMemory;
}

bool CScanRun::StartThreads(const CScanEngine &engine, std::vector<std::thread> &vecThreads) {
    vecThreads.reserve(m_nThreads + 1);
    try {
        for (unsigned nIndex = 0; nIndex < m_nThreads; ++nIndex) {
            std::unique_ptr<CScanEngine> pEngine = engine.Share();
            if (pEngine == nullptr) {
                return false;
            }
            auto pWorker = std::make_shared<CScanWorker>(std::move(pEngine), m_shared, m_queue);
            Launch(vecThreads, [pWorker] { pWorker->Run(); });
        }
        Launch(vecThreads, [this] { Walk(); });
    } catch (const std::system_error &) {
        return false;
    }
    return true;
}

// Counts the thread from before its start to its last step, so that Watch never misses one.
template <typename Work> void CScanRun::Launch(std::vector<std::thread> &vecThreads, Work work) {
    ++m_nRunning;
    try {
        vecThreads.emplace_back([this, work] {
            try {
                work();
            } catch (const std::bad_alloc &) { // what the other threads hold is theirs to finish
                m_bOutOfMemory = true;
                CInterrupt::RequestStop();
            }
            --m_nRunning;
            CInterrupt::Wake();
        });
    } catch (...) {
        --m_nRunning;
        throw;
    }
}

void CScanRun::Walk() {
    const _WalkListener listener = {
        [this](std::vector<_ScanJob> &vecJobs) {
            m_shared.counters.nFound += vecJobs.size();
            return m_queue.Push(vecJobs);
        },
        [this](ESkipped eReason) { m_shared.counters.CountSkipped(eReason); },
        [this](const std::string &strPath, const std::string &strError) { m_shared.report.Problem(strPath, strError); },
        [this](const std::string &strText) { m_shared.report.Note(strText); }};
    CTreeWalker walker(m_targets.vecExclude, m_shared.ownFiles, m_shared.bStop, listener);
    const bool bGoOn = std::all_of(m_targets.vecPaths.begin(), m_targets.vecPaths.end(),
                                   [&walker](const std::string &strPath) { return walker.Walk(strPath); });
    if (bGoOn && !m_targets.strFileList.empty()) {
        walker.WalkList(m_targets.strFileList, m_targets.bNullSeparated ? '\0' : '\n');
    }
    m_shared.counters.bWalkDone.store(true);
    m_queue.Close();
}

// Redraws the progress, writes out the report and passes a stop on, until every thread has ended.
void CScanRun::Watch() {
    std::optional<CFileEstimate> estimate;
    if (m_shared.report.ShowsProgress() && m_targets.strFileList.empty()) {
        estimate.emplace(m_targets.vecPaths, m_targets.vecExclude, m_shared.ownFiles);
    }
    const CStopwatch stopwatch;
    const _ScanCounters &counters = m_shared.counters;
    while (m_nRunning.load() > 0) {
        if (m_shared.bStop.load()) {
            m_queue.Abort();
        }
        CInterrupt::WaitForEvent(kRedraw);
        m_shared.report.Flush();
        const uint64_t nTotal = counters.bWalkDone ? counters.nFound.load() : estimate ? estimate->Total() : 0;
        m_shared.report.Progress(ProgressText(counters, nTotal, stopwatch.Seconds()));
    }
}
