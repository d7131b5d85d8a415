#include "tools/commands/scan.h"

#include "tools/cache/install_root.h"
#include "tools/cache/session.h"
#include "tools/engine/signature_set.h"
#include "tools/engine/temporary_folder.h"
#include "tools/scan/interrupt.h"
#include "tools/scan/stopwatch.h"

#include <algorithm>
#include <memory>
#include <sched.h>
#include <thread>

namespace {

unsigned ProcessorCount() {
    cpu_set_t processors = {};
    if (sched_getaffinity(0, sizeof processors, &processors) == 0 && CPU_COUNT(&processors) > 0) {
        return static_cast<unsigned>(CPU_COUNT(&processors));
    }
    return std::max(1u, std::thread::hardware_concurrency()); // more processors than the set holds
}

class CScanCommand {
  public:
    explicit CScanCommand(const _ScanOptions &options)
        : m_options(options), m_nThreads(options.nThreads != 0 ? options.nThreads : ProcessorCount()),
          m_root(options.strRoot), m_report(options.report, m_counters) {}

    EExitStatus Run();

  private:
    bool LoadEngine(std::string &strError);
    bool Scan(std::string &strError);
    _CacheListener Listener();
    void StartCache();
    void StopCache();
    EExitStatus Status() const;

    const _ScanOptions &m_options;
    const unsigned m_nThreads;
    const CInstallRoot m_root;
    _ScanCounters m_counters = {};
    CScanReport m_report;
    _ScanSummary m_summary = {};
    CTemporaryFolder m_temporary;
    _SignatureSet m_signatures = {};
    std::unique_ptr<CScanEngine> m_pEngine;
    CCacheSession m_cache;
};

EExitStatus CScanCommand::Run() {
    if (!CInterrupt::Install()) {
        return Fail("cannot prepare for signals");
    }
    std::string strError;
    if (!m_temporary.Make(m_nThreads * m_options.limits.ullMaxScanSize, strError) || !LoadEngine(strError)) {
        return Fail(strError);
    }
    CInterrupt::Arm();
    if (!Scan(strError)) {
        return Fail(strError);
    }
    m_report.Summary(m_summary);
    m_report.Flush();
    return Status();
}

// The fingerprint is taken before loading: signatures that are replaced meanwhile count as changed next time.
bool CScanCommand::LoadEngine(std::string &strError) {
    m_report.Progress("loading the signatures");
    const CStopwatch stopwatch;
    const std::string strOwnFolder = ProgramPrefix() + "/share/tarncache/signatures";
    if (ChooseSignatureSet(m_options.strDatabase, strOwnFolder, m_signatures, strError)) {
        m_pEngine = CScanEngine::Load(m_signatures.strPath, m_options.limits, m_temporary, strError);
    }
    m_report.Progress("");
    if (m_pEngine == nullptr) {
        return false;
    }
    m_summary.loadSeconds = stopwatch.Seconds();
    m_summary.nSignatures = m_pEngine->SignatureCount();
    m_summary.strSignatures = m_signatures.strPath;
    m_summary.bTestSignatures = m_signatures.bTestOnly;
    if (m_signatures.bTestOnly) {
        m_report.Warn("no signatures are installed; only the test files of this program's own set are found. Get the "
                      "real ones, for instance with Debian's package clamav-freshclam, or name them with --database");
    }
    return true;
}

bool CScanCommand::Scan(std::string &strError) {
    const CStopwatch stopwatch;
    StartCache();
    const COwnFiles ownFiles({m_root.CacheFolder(), m_temporary.Path()});
    const bool bWantDigest = m_cache.IsInUse() || m_options.report.bJson;
    const _ScanShared shared = {m_cache, ownFiles, CInterrupt::StopFlag(), m_report, m_counters, bWantDigest};
    if (!CScanRun(m_options.targets, shared, m_nThreads).Run(*m_pEngine, strError)) {
        return false;
    }
    StopCache();
    m_summary.scanSeconds = stopwatch.Seconds();
    m_summary.bInterrupted = CInterrupt::StopFlag().load();
    return true;
}

_CacheListener CScanCommand::Listener() {
    return {[this](const std::string &strText) { m_report.Note(strText); },
            [this](const std::string &strText) { m_report.Progress(strText); }};
}

// A scan goes on without a cache that does not start.
void CScanCommand::StartCache() {
    m_summary.strRoot = m_root.Path();
    if (m_options.bNoCache) {
        m_summary.strCacheOff = "--no-cache";
        return;
    }
    std::string strError;
    if (!m_cache.Start(m_root, m_signatures.strFingerprint, CInterrupt::StopFlag(), Listener(), strError)) {
        m_report.Warn("scanning without the cache: " + strError);
        m_summary.strCacheOff = strError;
    }
}

// Tells what was lost: without a word a full disk would leave every scan as slow as the first.
void CScanCommand::StopCache() {
    const uint64_t nLost = m_cache.Stop(Listener());
    if (nLost != 0) {
        m_report.Warn(std::to_string(nLost) + " verdicts could not be stored in the cache: its disk or the file size "
                                              "limit (ulimit -f) is full, or another process uses its database");
    }
    m_counters.notCached[static_cast<size_t>(ENotCached::NotStored)] += nLost;
}

EExitStatus CScanCommand::Status() const {
    if (CInterrupt::BySignal()) {
        return EExitStatus::Interrupted;
    }
    if (m_counters.nInfected != 0) {
        return EExitStatus::Attention;
    }
    return m_counters.nErrors != 0 || m_report.IsIncomplete() ? EExitStatus::Failure : EExitStatus::Success;
}

} // namespace

EExitStatus RunScan(const _ScanOptions &options) {
    return CScanCommand(options).Run();
}
