// The walk that turns path hashes back into paths, beside find(1), and what it costs the lookups meanwhile.
//
// walk_bench [files]; all folders of the generated tree begin with one letter, so that the path index prunes none.
#include "bench/bench_install.h"
#include "bench/lookup_load.h"
#include "interface/tarncache.h"
#include "util/dbfileutil.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr int64_t kDefaultFiles = 200000;
constexpr int64_t kManyRecords = 100000; // at most half of the files
constexpr int64_t kSomeRecords = 1000;
constexpr int64_t kRows = 100000;       // of the database behind the lookups
constexpr size_t kLookedUpFiles = 2000; // of the tree
constexpr double kMaxAgainstFind = 6;   // a walk for one record in terms of find
constexpr double kMaxManyRecords = 1.5; // a walk for 100,000 records in terms of one for a single record
constexpr int kRuns = 3;                // the best of them counts
constexpr std::chrono::seconds kQuietTime(2);

double BestOf(const std::function<void()> &action) {
    double best = TimeSeconds(action);
    for (int i = 1; i < kRuns; ++i) {
        best = std::min(best, TimeSeconds(action));
    }
    return best;
}

// Runs find and reads what it prints; the number of files found.
int64_t RunFind(const std::string &strFrom) {
    const std::string strCommand = "find '" + strFrom + "' -xdev -type f 2>/dev/null";
    std::FILE *pOutput = popen(strCommand.c_str(), "r");
    Require(pOutput != nullptr, "run find");
    std::array<char, 65536> acBuffer;
    int64_t liLines = 0;
    for (size_t nRead = 0; (nRead = std::fread(acBuffer.data(), 1, acBuffer.size(), pOutput)) > 0;) {
        liLines += std::count(acBuffer.begin(), acBuffer.begin() + static_cast<ptrdiff_t>(nRead), '\n');
    }
    (void)pclose(pOutput); // not 0 when a folder could not be read
    return liLines;
}

// Records of the first nCount files, each under an MD5 of its own.
class CTargets {
  public:
    CTargets(const std::vector<std::string> &vecFiles, int64_t liCount) {
        for (size_t i = 0; i < std::min(vecFiles.size(), static_cast<size_t>(liCount)); ++i) {
            const size_t nFile = i * vecFiles.size() / static_cast<size_t>(liCount) % vecFiles.size();
            auto pRecord = std::make_unique<_CacheRecordEx>();
            uint32_t aulHash[2] = {};
            Require(CalcFilePathCrc32(vecFiles[nFile].c_str(), aulHash) == 1 &&
                        CalcFilePathIndex(vecFiles[nFile].c_str(), pRecord->szFilePathIndex, kPathIndexLength) == 1,
                    "hash a path");
            std::memcpy(&pRecord->liFilePathHash, aulHash, sizeof aulHash);
            m_mapRecords[DigestText(RowDigest(static_cast<int64_t>(nFile)))].push_back(pRecord.get());
            m_vecRecords.push_back(std::move(pRecord));
        }
    }
    double BestSeconds() {
        const double seconds = BestOf([this] { Require(Walk() == TARN_OK, "walk"); });
        const auto nFound = std::count_if(m_vecRecords.begin(), m_vecRecords.end(),
                                          [](const auto &pRecord) { return pRecord->szFilePath[0] != '\0'; });
        (void)std::printf("  walk for %7zu records             %7.3f s   (%lld found)\n", m_vecRecords.size(), seconds,
                          static_cast<long long>(nFound));
        // Two files may share a path hash; then one of them goes without.
        Require(static_cast<size_t>(nFound) + m_vecRecords.size() / 100 >= m_vecRecords.size(), "the files are found");
        return seconds;
    }
    uint32_t Walk() {
        CdbFileUtil fileUtil;
        return fileUtil.FindFilesByCchRecords(m_mapRecords);
    }

  private:
    RecordMap m_mapRecords;
    std::vector<std::unique_ptr<_CacheRecordEx>> m_vecRecords;
};

bool MeasureWalks(const CBenchInstall &install, const std::vector<std::string> &vecFiles) {
    int64_t liFound = 0;
    (void)RunFind("/"); // so that every run finds the directories in memory
    const double findAll = BestOf([&liFound] { liFound = RunFind("/"); });
    (void)std::printf("  find / -xdev -type f               %7.3f s   (%lld files)\n", findAll,
                      static_cast<long long>(liFound));
    const double findTree = BestOf([&] { liFound = RunFind(install.Path("files")); });
    (void)std::printf("  find over the generated tree alone %7.3f s   (%lld files)\n", findTree,
                      static_cast<long long>(liFound));
    Require(liFound == static_cast<int64_t>(vecFiles.size()), "find sees every file");
    const double one = CTargets(vecFiles, 1).BestSeconds();
    (void)CTargets(vecFiles, kSomeRecords).BestSeconds();
    const double many = CTargets(vecFiles, std::min(kManyRecords, std::ssize(vecFiles) / 2)).BestSeconds();
    const bool bAllKept = ReportLimit("walk for 1 record / find of /", one / findAll, kMaxAgainstFind, "x");
    const bool bTreeKept = ReportLimit("walk for 1 record / find of the tree", one / findTree, kMaxAgainstFind, "x");
    const bool bManyKept = ReportLimit("walk for many records / for 1", many / one, kMaxManyRecords, "x");
    return bAllKept && bTreeKept && bManyKept;
}

void MeasureLookups(const CBenchInstall &install, const std::vector<std::string> &vecFiles) {
    const std::vector<std::string> vecLookedUp(
        vecFiles.begin(), vecFiles.begin() + std::min<ptrdiff_t>(kLookedUpFiles, std::ssize(vecFiles)));
    install.FillDatabase(kRows, vecLookedUp);
    Require(LocalCacheInit() == TARN_OK, "start the cache");
    install.WaitForStart(0);
    CTargets targets(vecFiles, kSomeRecords);
    CLookupLoad load(vecLookedUp, 1);
    std::this_thread::sleep_for(kQuietTime / 2); // the first lookups fill the page cache
    (void)load.TakeFigures();
    std::this_thread::sleep_for(kQuietTime);
    const _LoadFigures before = load.TakeFigures();
    const double seconds = BestOf([&targets] { Require(targets.Walk() == TARN_OK, "walk"); });
    const _LoadFigures during = load.TakeFigures();
    load.Stop();
    (void)LocalCacheUnInit();
    (void)std::printf(
        "Lookups by one thread: %.0f a second before a walk (longest %.1f ms), %.0f a second while it runs "
        "(longest %.1f ms; the walk takes %.3f s)\n",
        before.lookupsPerSecond, before.longestMs, during.lookupsPerSecond, during.longestMs, seconds);
}

} // namespace

int main(int argc, char **argv) {
    const int64_t liFiles = CountArgument(argc, argv, kDefaultFiles);
    const CBenchInstall install;
    const std::vector<std::string> vecFiles = install.MakeFiles(static_cast<size_t>(liFiles), 64);
    (void)std::printf("%lld files, best of %d runs\n", static_cast<long long>(liFiles), kRuns);
    const bool bKept = MeasureWalks(install, vecFiles);
    MeasureLookups(install, vecFiles);
    return bKept ? EXIT_SUCCESS : EXIT_FAILURE;
}
