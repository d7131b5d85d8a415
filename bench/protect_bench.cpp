// What the key "protect" costs: space, a lookup, and the first starts over the database of a version that knew no
// codes.
//
// protect_bench [rows]; one in fifty rows belongs to a file. Nothing expires, and lookups that wait for the vacuum of a
// start are counted apart.
#include "bench/bench_install.h"
#include "bench/lookup_load.h"
#include "interface/tarncache.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr int64_t kRowsPerFile = 50;
constexpr int kRounds = 15;     // of lookups, each without and with the key
constexpr int kStartRounds = 3; // of starts
constexpr int kLookupThreads = 2;
constexpr std::chrono::seconds kStartTime(10); // for which a start is watched
constexpr std::chrono::milliseconds kPause(100);
constexpr double kMaxBytes = 45; // for each record
constexpr double kMaxLookupPercent = 15;
constexpr double kMaxStallMs = 100;
constexpr char kFast[] = "pragma cache_size=-400000; pragma synchronous=off;";
constexpr char kDigest[] = "0123456789abcdef0123456789abcdef";

void Configure(const CBenchInstall &install, bool bProtect) {
    install.WriteFile("config/tarncfg.ini",
                      std::string("[cacheeng]\ncachesize=8000\nexpirepercent=30\nexpiretime=4102444800\n") +
                          (bProtect ? "protect=1\n" : ""));
}

double Seconds(clockid_t clock) {
    timespec now = {};
    (void)clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double Median(std::vector<double> vecValues) {
    std::nth_element(vecValues.begin(), vecValues.begin() + static_cast<int64_t>(vecValues.size() / 2),
                     vecValues.end());
    return vecValues[vecValues.size() / 2];
}

// --- starts

// What LocalCacheInit takes, or the longest lookup that the vacuum does not explain, in milliseconds.
double WatchStart(const CBenchInstall &install, const std::vector<std::string> &vecFiles, bool bProtect) {
    Configure(install, bProtect);
    CLookupLoad load(vecFiles, kLookupThreads);
    const double initMs = TimeSeconds([] { Require(LocalCacheInit() == TARN_OK, "start the cache"); }) * 1000;
    install.WaitForStart(0);
    std::this_thread::sleep_for(kPause); // a lookup counts where it ends
    const _LoadFigures vacuum = load.TakeFigures();
    std::this_thread::sleep_for(kStartTime);
    const _LoadFigures figures = load.TakeFigures();
    load.Stop();
    Require(LocalCacheUnInit() == TARN_OK, "stop the cache");
    (void)std::printf("  %-7s LocalCacheInit %6.1f ms   longest lookup with the vacuum %7.1f ms, then %6.1f ms   "
                      "%llu of %llu known\n",
                      bProtect ? "with" : "without", initMs, vacuum.longestMs, figures.longestMs,
                      static_cast<unsigned long long>(figures.nHits),
                      static_cast<unsigned long long>(figures.nLookups));
    return std::max(initMs, figures.longestMs);
}

// The database as it lies there, and each start from a copy of it. How long the starts with the key hold somebody up,
// and how much longer that is than without: records that answer are counted, which writes pages all over the database.
struct _Stalls {
    double longestMs;
    double moreMs;
};

_Stalls MeasureStarts(const CBenchInstall &install, const std::vector<std::string> &vecFiles) {
    const std::string strPristine = install.Path("pristine.db");
    fs::copy_file(install.Database(), strPristine, fs::copy_options::overwrite_existing);
    std::vector<double> aStalls[2];
    for (int i = 0; i < 2 * kStartRounds; ++i) {
        aStalls[i % 2].push_back(WatchStart(install, vecFiles, i % 2 != 0));
        fs::copy_file(strPristine, install.Database(), fs::copy_options::overwrite_existing);
    }
    return {Median(aStalls[1]), Median(aStalls[1]) - Median(aStalls[0])};
}

// --- codes

// A code for each row: of the files as the library makes them, of the other rows some bytes. They come in the order in
// which files are met, that is in none.
void MakeCodes(const CBenchInstall &install, const std::vector<std::string> &vecFiles) {
    Configure(install, true);
    Require(LocalCacheInit() == TARN_OK, "start the cache");
    for (const std::string &strFile : vecFiles) {
        _SCAN_FILE_RESULT result = {};
        result.lEngineCode = kFirstEngine;
        result.ulFlags = 5; // a file type other than 0: nothing is written at once
        Require(LocalCacheAdd(strFile.c_str(), kDigest, &result) == TARN_OK, "add a file");
    }
    Require(LocalCacheFlush(600000, nullptr) == TARN_OK && LocalCacheUnInit() == TARN_OK, "write the files");
    RunSQL(install.Database(), std::string(kFast) +
                                   "insert into CIT select FPH, randomblob(16) from CT where FPH not in "
                                   "(select FPH from CIT) order by random();");
}

bool MeasureSpace(const CBenchInstall &install, const std::vector<std::string> &vecFiles, int64_t liRows) {
    const auto sizeBefore = static_cast<double>(fs::file_size(install.Database()));
    MakeCodes(install, vecFiles);
    const double bytes =
        (static_cast<double>(fs::file_size(install.Database())) - sizeBefore) / static_cast<double>(liRows);
    return ReportLimit("the code of a record in the file", bytes, kMaxBytes, "byte");
}

// --- lookups

struct _Costs {
    std::vector<double> vecReal, vecProcessor; // microseconds for one lookup
};

void LookUpAll(const std::vector<std::string> &vecFiles, _Costs *pCosts) {
    const double real = Seconds(CLOCK_MONOTONIC);
    const double processor = Seconds(CLOCK_THREAD_CPUTIME_ID);
    for (const std::string &strFile : vecFiles) {
        Require(LookUpThroughLibrary(strFile) == TARN_OK, "find a file");
    }
    if (pCosts != nullptr) {
        const double perLookup = 1e6 / static_cast<double>(vecFiles.size());
        pCosts->vecProcessor.push_back((Seconds(CLOCK_THREAD_CPUTIME_ID) - processor) * perLookup);
        pCosts->vecReal.push_back((Seconds(CLOCK_MONOTONIC) - real) * perLookup);
    }
}

// How much more processor time, in percent.
double MeasureLookups(const CBenchInstall &install, const std::vector<std::string> &vecFiles, const char *pszOrder) {
    _Costs aCosts[2];
    for (int i = 0; i < 2 * kRounds; ++i) {
        Configure(install, i % 2 != 0);
        Require(LocalCacheInit() == TARN_OK && LocalCacheWaitReady(600000) == TARN_OK, "start the cache");
        LookUpAll(vecFiles, nullptr); // pages, file systems and descriptions come into memory
        LookUpAll(vecFiles, &aCosts[i % 2]);
        Require(LocalCacheUnInit() == TARN_OK, "stop the cache");
    }
    for (int i = 0; i < 2; ++i) {
        (void)std::printf("  a lookup in %s, %-8s %6.2f us, %6.2f us of processor time (medians of %d)\n", pszOrder,
                          i == 0 ? "without" : "with", Median(aCosts[i].vecReal), Median(aCosts[i].vecProcessor),
                          kRounds);
    }
    return (Median(aCosts[1].vecProcessor) / Median(aCosts[0].vecProcessor) - 1) * 100;
}

// A scan goes through folders, whose records lie together in all tables. The other order is the worst that there is:
// the files' records are spread over the database, and each lookup needs pages of its own.
bool MeasureBothOrders(const CBenchInstall &install, std::vector<std::string> vecFiles) {
    const double scan = MeasureLookups(install, vecFiles, "a scan's order");
    RunSQL(install.Database(), std::string(kFast) + "create temp table T as select * from CT; delete from CT;"
                                                    "insert into CT select * from T order by random(); vacuum;");
    std::shuffle(vecFiles.begin(), vecFiles.end(), std::mt19937_64(1)); // the same order in every run
    const double worst = MeasureLookups(install, vecFiles, "no order");
    (void)std::printf("  the worst order: %.2f %%\n", worst);
    return ReportLimit("processor time of a lookup in a scan", scan, kMaxLookupPercent, "%");
}

} // namespace

int main(int argc, char **argv) {
    const int64_t liRows = CountArgument(argc, argv, kDefaultRows);
    const CBenchInstall install;
    const std::vector<std::string> vecFiles = install.MakeFiles(static_cast<size_t>(liRows / kRowsPerFile), 64);
    Configure(install, false);
    install.FillDatabase(liRows, vecFiles);
    const double firstMs = MeasureStarts(install, vecFiles).longestMs;
    bool bKept = ReportLimit("stall at a start of an older database", firstMs, kMaxStallMs, "ms");
    bKept = MeasureSpace(install, vecFiles, liRows) && bKept;
    bKept = MeasureBothOrders(install, vecFiles) && bKept;
    const double laterMs = MeasureStarts(install, vecFiles).moreMs;
    bKept =
        ReportLimit("stall at a start with all codes, beyond one without the key", laterMs, kMaxStallMs, "ms") && bKept;
    return bKept ? EXIT_SUCCESS : EXIT_FAILURE;
}
