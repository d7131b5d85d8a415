// Memory of a process that has the cache open at its full size: after the start-up vacuum, random lookups and
// additions.
//
// memory_probe [rows]
#include "bench/bench_install.h"
#include "bench/lookup_load.h"
#include "interface/tarncache.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>

namespace {

constexpr double kMaxResidentMiB = 60;
constexpr size_t kLookups = 20000;
constexpr size_t kAdditions = 10000;
constexpr int64_t kRowsPerFile = 50;

// One line of /proc/self/status, in MiB.
double StatusMiB(const std::string &strKey) {
    std::ifstream status("/proc/self/status");
    for (std::string strLine; std::getline(status, strLine);) {
        if (strLine.compare(0, strKey.size() + 1, strKey + ":") == 0) {
            return std::strtod(strLine.c_str() + strKey.size() + 1, nullptr) / 1024;
        }
    }
    return -1;
}

void PrintMemory(const char *pszMoment) {
    (void)std::printf("%-44s VmRSS %6.1f MiB (anonymous %6.1f)   VmHWM %6.1f MiB\n", pszMoment, StatusMiB("VmRSS"),
                      StatusMiB("RssAnon"), StatusMiB("VmHWM"));
}

void LookUpAtRandom(const std::vector<std::string> &vecFiles) {
    std::mt19937_64 random(1);
    std::uniform_int_distribution<size_t> pick(0, vecFiles.size() - 1);
    for (size_t i = 0; i < kLookups; ++i) {
        Require(LookUpThroughLibrary(vecFiles[pick(random)]) == TARN_OK, "a known file is found");
    }
}

void Add(const std::vector<std::string> &vecFiles) {
    _SCAN_FILE_RESULT result = {};
    result.ulFlags = 5;
    for (size_t i = 0; i < kAdditions; ++i) {
        const std::string &strFile = vecFiles[i % vecFiles.size()];
        Require(LocalCacheAdd(strFile.c_str(), "0123456789abcdef0123456789abcdef", &result) == TARN_OK, "add a file");
    }
}

} // namespace

int main(int argc, char **argv) {
    const int64_t liRows = CountArgument(argc, argv, kDefaultRows);
    const CBenchInstall install;
    const std::vector<std::string> vecFiles = install.MakeFiles(static_cast<size_t>(liRows / kRowsPerFile), 64);
    install.FillDatabaseInChild(liRows, vecFiles);
    PrintMemory("before the start");
    Require(LocalCacheInit() == TARN_OK, "start the cache");
    install.WaitForStart(0);
    PrintMemory("after the start-up vacuum");
    LookUpAtRandom(vecFiles);
    PrintMemory("after 20,000 random lookups");
    Add(vecFiles);
    PrintMemory("after 10,000 additions were queued");
    _LOCAL_CACHE_STATISTIC statistic = {};
    while (statistic.ulAddedCount < kAdditions) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        Require(LocalCacheGetStatistic(&statistic) == TARN_OK, "read the counters");
    }
    PrintMemory("after they were written");
    const bool bKept = ReportLimit("resident memory", StatusMiB("VmRSS"), kMaxResidentMiB, "MiB");
    const bool bPeakKept = ReportLimit("highest resident memory", StatusMiB("VmHWM"), kMaxResidentMiB, "MiB");
    (void)LocalCacheUnInit();
    return bKept && bPeakKept ? EXIT_SUCCESS : EXIT_FAILURE;
}
