#include "tools/commands/commands.h"

#include "tools/engine/signature_set.h"
#include "tools/engine/temporary_folder.h"
#include "tools/scan/estimate.h"
#include "tools/scan/interrupt.h"
#include "tools/scan/walker.h"
#include "tools/scan/worker.h"
#include "tools/text.h"

#include <chrono>
#include <optional>
#include <sched.h>
#include <sys/resource.h>
#include <thread>

namespace {

constexpr int kRedraw = 200; // milliseconds between two looks of the monitor
constexpr rlim_t kManyFiles = 65536;

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

unsigned ProcessorCount() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    if (sched_getaffinity(0, sizeof processors, &processors) == 0 && CPU_COUNT(&processors) > 0) {
        return static_cast<unsigned>(CPU_COUNT(&processors));
    }
    return std::max(1u, std::thread::hardware_concurrency()); // more processors than the set holds
}

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

// One scan with everything it needs, from the walk to the last worker.
class CScanRun {
  public:
    CScanRun(const _ScanOptions &options, const CScanEngine &engine, CCacheSession &cache, const COwnFiles &ownFiles,
             CScanReport &report, _ScanCounters &counters, unsigned nThreads)
        : m_options(options), m_engine(engine), m_ownFiles(ownFiles), m_report(report), m_counters(counters),
          m_nThreads(nThreads), m_queue(nThreads), m_shared{cache,
                                                            ownFiles,
                                                            CInterrupt::StopFlag(),
                                                            m_queue,
                                                            report,
                                                            counters,
                                                            cache.IsInUse() || options.report.bJson} {}

    // False when the threads cannot be started.
    bool Run() {
        std::vector<std::thread> threads;
        const bool bStarted = StartThreads(threads);
        if (!bStarted) {
            CInterrupt::RequestStop();
        }
        Watch();
        for (std::thread &thread : threads) {
            thread.join();
        }
        m_report.Progress("");
        return bStarted;
    }

  private:
    bool StartThreads(std::vector<std::thread> &threads) {
        threads.reserve(m_nThreads + 1);
        try {
            for (unsigned index = 0; index < m_nThreads; ++index) {
                std::unique_ptr<CScanEngine> pEngine = m_engine.Share();
                if (pEngine == nullptr) {
                    return false;
                }
                auto pWorker = std::make_shared<CScanWorker>(std::move(pEngine), m_shared);
                Launch(threads, [pWorker] { pWorker->Run(); });
            }
            Launch(threads, [this] { Walk(); });
        } catch (const std::system_error &) {
            return false;
        }
        return true;
    }

    template <typename Work> void Launch(std::vector<std::thread> &threads, Work work) {
        ++m_nRunning;
        try {
            threads.emplace_back([this, work] {
                work();
                --m_nRunning;
                CInterrupt::Wake();
            });
        } catch (...) {
            --m_nRunning;
            throw;
        }
    }

    void Walk() {
        CTreeWalker walker(m_options.vecExclude, m_ownFiles, CInterrupt::StopFlag(), m_queue, m_report, m_counters);
        bool bGoOn = true;
        for (size_t index = 0; bGoOn && index < m_options.vecPaths.size(); ++index) {
            bGoOn = walker.Walk(m_options.vecPaths[index]);
        }
        if (bGoOn && !m_options.strFileList.empty()) {
            walker.WalkList(m_options.strFileList, m_options.bNullSeparated ? '\0' : '\n');
        }
        m_counters.bWalkDone.store(true);
        m_queue.Close();
    }

    // Redraws the progress, writes out the report and passes a stop on, until every thread has ended.
    void Watch() {
        std::optional<CFileEstimate> estimate;
        if (m_report.ShowsProgress() && m_options.strFileList.empty()) {
            estimate.emplace(m_options.vecPaths, m_options.vecExclude, m_ownFiles);
        }
        const Clock::time_point start = Clock::now();
        while (m_nRunning.load() > 0) {
            if (CInterrupt::StopFlag().load()) {
                m_queue.Abort();
            }
            CInterrupt::WaitForEvent(kRedraw);
            m_report.Flush();
            const uint64_t nTotal = m_counters.bWalkDone ? m_counters.nFound.load() : estimate ? estimate->Total() : 0;
            m_report.Progress(ProgressText(m_counters, nTotal, SecondsSince(start)));
        }
    }

    const _ScanOptions &m_options;
    const CScanEngine &m_engine;
    const COwnFiles &m_ownFiles;
    CScanReport &m_report;
    _ScanCounters &m_counters;
    const unsigned m_nThreads;
    CJobQueue m_queue;
    const _ScanShared m_shared;
    std::atomic<int> m_nRunning = 0;
};

// Starts the cache; a scan goes on without one.
std::string StartCache(const _ScanOptions &options, const CInstallRoot &root, const _SignatureSet &signatures,
                       CCacheSession &cache, CScanReport &report) {
    std::string strWhy;
    if (options.bNoCache) {
        return "--no-cache";
    }
    if (cache.Start(root, signatures.strFingerprint, report, strWhy)) {
        return {};
    }
    report.Warn("scanning without the cache: " + strWhy);
    return strWhy;
}

// Without a word a full disk would leave every scan as slow as the first.
void StopCache(CCacheSession &cache, CScanReport &report, _ScanCounters &counters) {
    const uint64_t nLost = cache.CountLost();
    if (nLost != 0) {
        report.Warn("about " + std::to_string(nLost) +
                    " verdicts could not be stored in the cache: its disk or the file size "
                    "limit (ulimit -f) is full, or another process uses its database");
    }
    counters.notCached[static_cast<size_t>(ENotCached::NotStored)] += nLost;
    cache.Stop();
}

int ExitStatus(const _ScanCounters &counters, const CScanReport &report) {
    if (CInterrupt::BySignal()) {
        return kExitInterrupted;
    }
    if (counters.nInfected != 0) {
        return kExitFound;
    }
    return counters.nErrors != 0 || report.IsIncomplete() ? kExitTrouble : kExitClean;
}

} // namespace

int RunScan(const _ScanOptions &options) {
    const CInstallRoot root(options.strRoot);
    root.ExportToLibrary();
    if (!CInterrupt::Install()) {
        return Trouble("cannot prepare for signals");
    }
    AllowManyFiles();

    _ScanCounters counters;
    CScanReport report(options.report, counters);
    _ScanSummary summary;
    std::string strError;
    _SignatureSet signatures;
    const unsigned nThreads = options.nThreads != 0 ? options.nThreads : ProcessorCount();
    const CTemporaryFolder temporary(nThreads * options.limits.ullMaxScanSize);
    if (temporary.Path().empty()) {
        return Trouble(temporary.Error());
    }
    report.Progress("loading the signatures");
    const Clock::time_point loadStart = Clock::now();
    // The fingerprint is taken before loading: signatures that are replaced meanwhile count as changed next time.
    std::unique_ptr<CScanEngine> pEngine;
    if (ChooseSignatureSet(options.strDatabase, signatures, strError)) {
        pEngine = CScanEngine::Load(signatures.strPath, options.limits, temporary, strError);
    }
    report.Progress("");
    if (pEngine == nullptr) {
        return Trouble(strError);
    }
    summary.loadSeconds = SecondsSince(loadStart);
    summary.nSignatures = pEngine->SignatureCount();
    summary.strSignatures = signatures.strPath;
    summary.bTestSignatures = signatures.bTestOnly;
    if (signatures.bTestOnly) {
        report.Warn("no signatures are installed; only the test files of this program's own set are found. Get the "
                    "real ones, for instance with Debian's package clamav-freshclam, or name them with --database");
    }

    CInterrupt::Arm();
    const Clock::time_point scanStart = Clock::now();
    CCacheSession cache;
    summary.strCacheOff = StartCache(options, root, signatures, cache, report);
    summary.strRoot = root.Path();
    const COwnFiles ownFiles({root.CacheFolder(), temporary.Path()});
    if (!CScanRun(options, *pEngine, cache, ownFiles, report, counters, nThreads).Run()) {
        return Trouble("cannot start the worker threads");
    }
    StopCache(cache, report, counters);
    summary.scanSeconds = SecondsSince(scanStart);
    summary.bInterrupted = CInterrupt::StopFlag().load();
    report.Summary(summary);
    report.Flush();
    return ExitStatus(counters, report);
}
