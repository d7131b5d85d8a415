#include "tools/cache/install_root.h"
#include "tools/cache/session.h"
#include "tools/commands/commands.h"
#include "tools/engine/scan_engine.h"
#include "tools/engine/signature_set.h"
#include "tools/engine/temporary_folder.h"
#include "tools/scan/interrupt.h"
#include "tools/scan/report.h"
#include "tools/scan/run.h"
#include "tools/scan/stopwatch.h"
#include "tools/text/path_argument.h"

#include <CLI/CLI.hpp>
#include <tarncache.h>

#include <algorithm>
#include <memory>
#include <sched.h>
#include <thread>

namespace {

struct _ScanOptions {
    _ScanTargets targets;
    _ScanLimits limits;
    _ReportOptions report;
    std::string strRoot;
    std::string strDatabase; // of signatures; empty: the system's, else the program's own
    unsigned nThreads = 0;   // 0: one for each processor that this process may use
    bool bNoCache = false;
    bool bNetwork = false;
    bool bRemovable = false;
};

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
    const uint32_t ulAllow =
        (m_options.bNetwork ? TARN_ALLOW_NETWORK : 0U) | (m_options.bRemovable ? TARN_ALLOW_REMOVABLE : 0U);
    const _ScanShared shared = {m_cache, ownFiles, CInterrupt::StopFlag(), m_report, m_counters, bWantDigest, ulAllow};
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

EExitStatus RunScan(_ScanOptions &options) {
    if (options.targets.vecPaths.empty() && options.targets.strFileList.empty()) {
        return Fail("scan: nothing to scan; give a PATH or --file-list");
    }
    for (std::string &strGlob : options.targets.vecExclude) {
        strGlob = AbsoluteGlob(strGlob);
    }
    return CScanCommand(options).Run();
}

void AddTargets(CLI::App *pLine, _ScanTargets &targets) {
    pLine->add_option("PATH", targets.vecPaths, "Files and folders; a PATH that is a link stands for its target")
        ->type_name("");
    pLine
        ->add_option("--exclude", targets.vecExclude,
                     "Skip what matches, by whole path or by any name in it; may be repeated")
        ->type_name("GLOB")
        ->allow_extra_args(false);
    pLine->add_option("--file-list,-f", targets.strFileList, "Scan the paths in FILE, one a line; - is standard input")
        ->type_name("FILE");
    pLine->add_flag("--null,-0", targets.bNullSeparated, "The file list is separated by NUL bytes");
}

void AddCacheUse(CLI::App *pLine, _ScanOptions &options) {
    pLine->add_flag("--no-cache", options.bNoCache, "Neither ask nor fill the cache");
    pLine->add_flag("--remember-network", options.bNetwork,
                    "Cache verdicts of network file systems too; whoever runs the server, or can pass for it, is then "
                    "able to change a file so that it is not scanned again");
    pLine->add_flag("--remember-removable", options.bRemovable,
                    "Likewise of removable media and of images that others may write; whoever changes the "
                    "medium elsewhere is then able to do so");
}

void AddReport(CLI::App *pLine, _ReportOptions &report) {
    pLine->add_flag("--verbose,-v", report.bVerbose, "Report clean files too");
    pLine->add_flag("--infected,-i", report.bInfectedOnly, "Report infected files only, no errors");
    pLine->add_flag("--quiet,-q", report.bQuiet, "No summary, no progress, no remarks");
    pLine->add_flag("--json", report.bJson, "One JSON object a line: reported files, then the summary");
}

// A size in bytes, or "100M" and the like in units of 1024. Its value at this moment is the default that help shows.
void AddSize(CLI::App *pLine, const std::string &strName, uint64_t &ullBytes, const std::string &strHelp) {
    CLI::Validator size = CLI::AsSizeValue(false);
    pLine->add_option(strName, ullBytes, strHelp)
        ->transform(size.description(""))
        ->type_name("SIZE")
        ->default_str(std::to_string(ullBytes >> 20U) + "M");
}

void AddLimits(CLI::App *pLine, _ScanLimits &limits) {
    AddSize(pLine, "--max-filesize", limits.ullMaxFileSize,
            "Do not scan files larger than this (0: only the engine's own limit of 2 GiB)");
    AddSize(pLine, "--max-scansize", limits.ullMaxScanSize, "Unpack at most this much from one file (0: no limit)");
    pLine->add_option("--max-scantime", limits.ulMaxScanTime, "Seconds for one file, 0 for no limit")
        ->check(CLI::Range(0u, 86400u).description(""))
        ->type_name("SECONDS")
        ->capture_default_str();
}

} // namespace

_Command AddScan(CLI::App &app) {
    const auto pOptions = std::make_shared<_ScanOptions>();
    CLI::App *pLine = AddCommandLine(app, "scan", "Scan files and folders; unchanged files are answered from the cache",
                                     pOptions->strRoot);
    pLine
        ->add_option("--database,-d", pOptions->strDatabase,
                     "Signature file or folder of signature files; another set than last time "
                     "drops the verdicts in this cache (not with --no-cache)")
        ->type_name("PATH");
    pLine->add_option("--threads,-t", pOptions->nThreads, "Worker threads (default: the processors of this process)")
        ->check(CLI::Range(1u, 1024u).description(""));
    AddTargets(pLine, pOptions->targets);
    AddCacheUse(pLine, *pOptions);
    AddReport(pLine, pOptions->report);
    AddLimits(pLine, pOptions->limits);
    pLine->footer("Exit status: 0 clean, 1 infected files found, 2 errors or files that changed during their scan and "
                  "nothing infected, 130 interrupted.");
    return {pLine, [pOptions] { return RunScan(*pOptions); }};
}
