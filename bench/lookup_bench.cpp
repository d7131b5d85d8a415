// Cost of a lookup and of an addition beside the limit (the file's status and its two hashes alone) and the rivals.
//
// lookup_bench [Google Benchmark options] [rows]; files in random order, one in fifty rows belongs to a file.
#include "bench/bench_install.h"
#include "bench/lookup_rivals.h"
#include "interface/tarncache.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <memory>
#include <random>

namespace {

constexpr double kMaxRatio = 16;         // a hit in terms of the limit
constexpr size_t kFileBytes = 16 * 1024; // a usual size
constexpr int64_t kRowsPerFile = 50;
constexpr size_t kUnknownFiles = 2000;
constexpr int kRepetitions = 5;
constexpr int64_t kBurst = 1000;         // additions, well below a full queue
constexpr int64_t kSustained = 100000;   // additions, ten full queues
constexpr size_t kThreadDistance = 7919; // threads start apart in the random order

std::vector<std::string> g_vecKnown;   // files with a row, in random order
std::vector<std::string> g_vecUnknown; // files without
std::unique_ptr<CPlainSqlite> g_pPlain;
std::unique_ptr<CLmdbStore> g_pLmdb;
std::unique_ptr<CRehashMap> g_pRehash;

// Runs ask(file) over the list until the state has enough; every answer must be the expected one.
template <typename Ask> void RunOver(benchmark::State &state, const std::vector<std::string> &vecFiles, Ask ask) {
    size_t nNext = static_cast<size_t>(state.thread_index()) * kThreadDistance % vecFiles.size();
    for (auto _ : state) {
        if (!ask(vecFiles[nNext])) {
            state.SkipWithError("an unexpected answer");
            break;
        }
        nNext = nNext + 1 < vecFiles.size() ? nNext + 1 : 0;
    }
    state.SetItemsProcessed(state.iterations());
}

bool HashesAlone(const std::string &strFile) {
    uint32_t aulPathHash[2] = {};
    uint32_t ulAttrHash = 0;
    const bool bDone =
        CalcFilePathCrc32(strFile.c_str(), aulPathHash) == 1 && CalcFileAttrCrc32(strFile.c_str(), &ulAttrHash) == 1;
    benchmark::DoNotOptimize(aulPathHash);
    benchmark::DoNotOptimize(ulAttrHash);
    return bDone;
}

uint32_t LookUp(const std::string &strFile) {
    char szMD5[TARN_MD5_TEXT_SIZE];
    _SCAN_FILE_RESULT result;
    const uint32_t ulResult = LocalCacheLookup(strFile.c_str(), szMD5, &result);
    benchmark::DoNotOptimize(result);
    return ulResult;
}

bool Add(const std::string &strFile) {
    _SCAN_FILE_RESULT result = {};
    result.lEngineCode = kFirstEngine;
    result.ulFlags = 5; // a file type other than 0: nothing is written at once
    return LocalCacheAdd(strFile.c_str(), "0123456789abcdef0123456789abcdef", &result) == TARN_OK;
}

struct _Cost {
    double realTime;
    double cpuTime;
};

// Shows medians and their spread only, and keeps the medians.
class CMedianReporter : public benchmark::ConsoleReporter {
  public:
    CMedianReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run> &runs) override {
        std::vector<Run> vecShown;
        for (const Run &run : runs) {
            if (run.aggregate_name == "median" || run.error_occurred) {
                vecShown.push_back(run);
                m_vecMedians.push_back(run);
            }
        }
        ConsoleReporter::ReportRuns(vecShown);
    }
    // Of one thread, in nanoseconds; zeros when the benchmark did not run.
    _Cost Median(const std::string &strName) const {
        const auto it = std::find_if(m_vecMedians.begin(), m_vecMedians.end(), [&](const Run &run) {
            return run.run_name.function_name == strName && run.threads == 1;
        });
        return it != m_vecMedians.end() ? _Cost{it->GetAdjustedRealTime(), it->GetAdjustedCPUTime()} : _Cost{};
    }

  private:
    std::vector<Run> m_vecMedians;
};

template <typename Body> benchmark::internal::Benchmark *Register(const char *pszName, Body body) {
    return benchmark::RegisterBenchmark(pszName, body)
        ->UseRealTime()
        ->Repetitions(kRepetitions)
        ->ReportAggregatesOnly();
}

template <typename Ask> benchmark::internal::Benchmark *RegisterKnown(const char *pszName, Ask ask) {
    return Register(pszName, [ask](benchmark::State &state) { RunOver(state, g_vecKnown, ask); });
}

void RegisterAll() {
    RegisterKnown("Limit", HashesAlone);
    RegisterKnown("CacheLookupHit", [](const std::string &strFile) { return LookUp(strFile) == TARN_OK; })
        ->Threads(1)
        ->Threads(2)
        ->Threads(8);
    Register("CacheLookupMiss", [](benchmark::State &state) {
        RunOver(state, g_vecUnknown, [](const std::string &strFile) { return LookUp(strFile) == TARN_NOT_CACHED; });
    });
    RegisterKnown("PlainSqlite", [](const std::string &strFile) { return g_pPlain->LookUpPreparing(strFile); });
    RegisterKnown("PlainSqliteKept", [](const std::string &strFile) { return g_pPlain->LookUpKept(strFile); });
    RegisterKnown("Lmdb", [](const std::string &strFile) { return g_pLmdb->LookUp(strFile); });
    RegisterKnown("RehashAndMap", [](const std::string &strFile) { return g_pRehash->LookUp(strFile); });
    RegisterKnown("CacheAddBurst", Add)->Iterations(kBurst);
    RegisterKnown("CacheAddSustained", Add)->Iterations(kSustained);
}

void MakeStores(const CBenchInstall &install, int64_t liRows) {
    std::vector<std::string> vecFiles =
        install.MakeFiles(static_cast<size_t>(liRows / kRowsPerFile) + kUnknownFiles, kFileBytes);
    g_vecUnknown.assign(vecFiles.end() - kUnknownFiles, vecFiles.end());
    vecFiles.resize(vecFiles.size() - kUnknownFiles);
    install.FillDatabase(liRows, vecFiles);
    g_pPlain = std::make_unique<CPlainSqlite>(install.Path("plain.db"), liRows, vecFiles);
    g_pLmdb = std::make_unique<CLmdbStore>(install.Path("lmdb.db"), liRows, vecFiles);
    g_pRehash = std::make_unique<CRehashMap>(vecFiles);
    g_vecKnown = std::move(vecFiles);
    std::shuffle(g_vecKnown.begin(), g_vecKnown.end(), std::mt19937_64(1)); // the same order in every run
}

bool ReportRatios(const CMedianReporter &reporter) {
    const _Cost limit = reporter.Median("Limit");
    const _Cost hit = reporter.Median("CacheLookupHit");
    if (limit.realTime <= 0 || hit.realTime <= 0) {
        return true; // left out on the command line
    }
    (void)std::printf("\nIn terms of the limit (%.0f ns; medians of %d, one thread):\n", limit.realTime, kRepetitions);
    for (const char *pszName : {"CacheLookupMiss", "PlainSqlite", "PlainSqliteKept", "Lmdb", "RehashAndMap"}) {
        if (const _Cost cost = reporter.Median(pszName); cost.realTime > 0) {
            (void)std::printf("  %-22s %6.1f\n", pszName, cost.realTime / limit.realTime);
        }
    }
    (void)std::printf("  %-22s %6.1f in processor time\n", "CacheLookupHit", hit.cpuTime / limit.cpuTime);
    return ReportLimit("CacheLookupHit / Limit", hit.realTime / limit.realTime, kMaxRatio, "x");
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    const int64_t liRows = CountArgument(argc, argv, kDefaultRows);
    const CBenchInstall install;
    MakeStores(install, liRows);
    (void)std::printf("%lld rows, %zu known files of %zu bytes\n", static_cast<long long>(liRows), g_vecKnown.size(),
                      kFileBytes);
    Require(LocalCacheInit() == TARN_OK, "start the cache");
    install.WaitForStart(0);
    RegisterAll();
    CMedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    (void)LocalCacheUnInit();
    const bool bKept = ReportRatios(reporter);
    g_pPlain.reset();
    g_pLmdb.reset();
    return bKept ? EXIT_SUCCESS : EXIT_FAILURE;
}
