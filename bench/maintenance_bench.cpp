// Maintenance at full size while four threads look files up: how long it takes, and how long a lookup is held out.
//
// maintenance_bench [rows]; trimming is measured from 1,000,000 rows on.
#include "agent/dbagent.h"
#include "bench/bench_install.h"
#include "bench/lookup_load.h"
#include "formats/installation.h"
#include "interface/tarncache.h"
#include "platform/tarncore.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr int kLookupThreads = 4;
constexpr int64_t kWithdrawn = 10000;     // digests in one list
constexpr int64_t kReferenceDigests = 20; // without an index each reads the whole table
constexpr double kMaxWithdrawalSeconds = 3;
constexpr double kMaxHoldOutMs = 100;
constexpr int64_t kRowsPerFile = 50;
constexpr int64_t kExcessRows = 5;
constexpr int64_t kRowsAfterTrimming = 700000; // at 30 percent
constexpr size_t kCipherBlock = 256;           // bytes that one keyed state enciphers
constexpr std::chrono::milliseconds kWarmUp(500);
constexpr char kKey[] = "bench-key-14-b"; // 14 bytes
constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kAllRows[] = "select count(*) from CT;";

// The filled database and its pristine copy, from which every measurement starts.
struct _Scene {
    CBenchInstall install;
    std::vector<std::string> vecFiles;
    int64_t liRows = 0;

    std::string Pristine() const { return install.Path("pristine.db"); }
    void Restore() const { fs::copy_file(Pristine(), install.Database(), fs::copy_options::overwrite_existing); }
};

void PrintPeriod(const char *pszWhat, double seconds, const _LoadFigures &figures) {
    (void)std::printf("  %-34s %7.3f s   longest lookup %8.1f ms   over 100 ms: %3llu of %llu lookups\n", pszWhat,
                      seconds, figures.longestMs, static_cast<unsigned long long>(figures.nOver100Ms),
                      static_cast<unsigned long long>(figures.nLookups));
}

double MiB(const std::string &strPath) {
    return static_cast<double>(fs::file_size(strPath)) / 1048576;
}

struct _Period {
    double seconds;
    _LoadFigures figures;
};

// One start with lookups from its first moment. With a marker: the period until the marker is consumed; then that of
// the vacuum, until the start is counted.
struct _Start {
    _Period marker;
    _Period vacuum;
};

_Start RunStart(const _Scene &scene, const std::string &strMarker) {
    const int nFinished = scene.install.FinishedStarts();
    CLookupLoad load(scene.vecFiles, kLookupThreads);
    _Start start = {};
    double initSeconds = 0;
    (void)load.TakeFigures();
    start.marker.seconds = TimeSeconds([&] {
        initSeconds = TimeSeconds([] { Require(LocalCacheInit() == TARN_OK, "start the cache"); });
        while (!strMarker.empty() && fs::exists(strMarker)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    start.marker.figures = load.TakeFigures();
    start.vacuum.seconds = TimeSeconds([&] { scene.install.WaitForStart(nFinished); });
    start.vacuum.figures = load.TakeFigures();
    load.Stop();
    Require(LocalCacheUnInit() == TARN_OK, "stop the cache");
    (void)std::printf("  %-34s %7.3f s\n", "LocalCacheInit", initSeconds);
    if (!strMarker.empty()) {
        PrintPeriod("until the marker is consumed", start.marker.seconds, start.marker.figures);
    }
    PrintPeriod("vacuum", start.vacuum.seconds, start.vacuum.figures);
    const int64_t liFreePages = QueryNumber(scene.install.Database(), "pragma freelist_count;");
    if (liFreePages != 0) {
        (void)std::printf("  the vacuum did NOT succeed: %lld free pages are left\n",
                          static_cast<long long>(liFreePages));
    }
    return start;
}

std::string Encipher(std::string strText) {
    RC4_STATE keyedState = {};
    RC4_set_key(&keyedState, sizeof kKey - 1, reinterpret_cast<const unsigned char *>(kKey));
    auto *pBytes = reinterpret_cast<unsigned char *>(strText.data());
    for (size_t nOffset = 0; nOffset < strText.size(); nOffset += kCipherBlock) {
        RC4_STATE state = keyedState;
        RC4_crypt(&state, std::min(kCipherBlock, strText.size() - nOffset), pBytes + nOffset, pBytes + nOffset);
    }
    return strText;
}

void WriteKey(const CBenchInstall &install) {
    std::string strValue;
    for (const char cByte : std::string(kKey)) {
        const auto nByte = static_cast<unsigned char>(cByte);
        strValue += kHexDigits[nByte / 16];
        strValue += kHexDigits[nByte % 16];
    }
    install.WriteFile("config/business.ini", "[avscan]\nmor_secret=" + strValue + "\n");
    fs::permissions(install.Path("config/business.ini"), fs::perms::owner_read | fs::perms::owner_write);
}

bool MeasureWithdrawal(const _Scene &scene) {
    scene.Restore();
    WriteKey(scene.install);
    const int64_t liWithdrawn = std::min(kWithdrawn, scene.liRows / 100);
    std::string strList = "engine:1.2\n";
    for (int64_t i = 0; i < liWithdrawn; ++i) {
        strList += DigestText(RowDigest(i * (scene.liRows / liWithdrawn))) + "\n";
    }
    scene.install.WriteFile("engine/kelmorehash/update_cache.dat", Encipher(strList));
    scene.install.WriteFile(std::string("engine/") + kHashMarkerName, "");
    (void)std::printf("\nWithdrawing %lld digests\n", static_cast<long long>(liWithdrawn));
    const _Start start = RunStart(scene, scene.install.Path(std::string("engine/") + kHashMarkerName));
    Require(QueryNumber(scene.install.Database(), kAllRows) == scene.liRows - liWithdrawn, "one row gone per digest");
    const bool bTimeKept = ReportLimit("withdrawal", start.marker.seconds, kMaxWithdrawalSeconds, "s");
    const bool bHoldOutKept =
        ReportLimit("longest lookup during the withdrawal", start.marker.figures.longestMs, kMaxHoldOutMs, "ms");
    return bTimeKept && bHoldOutKept;
}

double MsPerDigest(const _Scene &scene) {
    std::string strSQL = "begin immediate;";
    for (int64_t i = 0; i < kReferenceDigests; ++i) {
        const CacheMD5 md5 = RowDigest(i * (scene.liRows / kReferenceDigests) + 1);
        strSQL += "delete from CT where FHMD=" + std::to_string(md5.liHighMD5) +
                  " and FLMD=" + std::to_string(md5.liLowMD5) + ";";
    }
    const double seconds = TimeSeconds([&] { RunSQL(scene.install.Database(), strSQL + "commit;"); });
    Require(QueryNumber(scene.install.Database(), kAllRows) == scene.liRows - kReferenceDigests, "one row per digest");
    return seconds * 1000 / static_cast<double>(kReferenceDigests);
}

void MeasureReference(const _Scene &scene) {
    scene.Restore();
    const double withIndex = MsPerDigest(scene);
    scene.Restore();
    RunSQL(scene.install.Database(), "drop index if exists CT_MD5;");
    Require(QueryNumber(scene.install.Database(),
                        "select count(*) from sqlite_master where type='index' and sql is not null;") == 0,
            "no index but the key's");
    const double withoutIndex = MsPerDigest(scene);
    (void)std::printf("\nThe deletions alone, %lld digests in one transaction, no lookups\n"
                      "  with the MD5 index %.2f ms each, without it %.2f ms each (10,000: %.0f s)\n",
                      static_cast<long long>(kReferenceDigests), withIndex, withoutIndex,
                      withoutIndex * static_cast<double>(kWithdrawn) / 1000);
}

void MeasureEngineInvalidation(const _Scene &scene) {
    scene.Restore();
    scene.install.WriteFile(std::string("engine/") + kEngineMarkerName, "");
    (void)std::printf("\nInvalidating one engine of eight\n");
    (void)RunStart(scene, scene.install.Path(std::string("engine/") + kEngineMarkerName));
    const int64_t liLeft = QueryNumber(scene.install.Database(), kAllRows);
    Require(liLeft == scene.liRows - scene.liRows / kEngines, "the rows of one engine are gone");
}

void MeasureTrimming(const _Scene &scene) {
    if (scene.liRows < kDefaultRows) {
        (void)std::printf("\nTrimming: not measured below 1,000,000 rows\n");
        return;
    }
    scene.Restore();
    RunSQL(scene.install.Database(), "insert into CT select -1-FPH,FAH,FTV,FHMD,FLMD,QC,TS,RS,FFI from CT limit " +
                                         std::to_string(kExcessRows) + ";");
    (void)std::printf("\nTrimming %lld rows, then the vacuum\n", static_cast<long long>(scene.liRows + kExcessRows));
    CDataBaseAgent agent;
    Require(agent.AgentInit(1) == TARN_OK, "start an agent without its writer");
    {
        CLookupLoad load(scene.vecFiles, kLookupThreads, [&agent](const std::string &strFile) {
            char szMD5[TARN_MD5_TEXT_SIZE] = {};
            _SCAN_FILE_RESULT result = {};
            return agent.CacheLookup(strFile.c_str(), szMD5, &result);
        });
        std::this_thread::sleep_for(kWarmUp);
        PrintPeriod("before", std::chrono::duration<double>(kWarmUp).count(), load.TakeFigures());
        const double trimSeconds = TimeSeconds([&agent] { agent.TimerCleanCaches(); });
        PrintPeriod("trimming", trimSeconds, load.TakeFigures());
        const double sizeBefore = MiB(scene.install.Database());
        int64_t liCompacted = 0;
        const double vacuumSeconds = TimeSeconds([&] { liCompacted = agent.AdjustDBToActualSize(); });
        PrintPeriod(liCompacted == 1 ? "vacuum" : "vacuum, REFUSED while lookups run", vacuumSeconds,
                    load.TakeFigures());
        if (liCompacted != 1) {
            load.Stop();
            const double quietSeconds = TimeSeconds([&] { liCompacted = agent.AdjustDBToActualSize(); });
            PrintPeriod("vacuum without lookups", quietSeconds, load.TakeFigures());
        }
        Require(liCompacted == 1, "vacuum");
        (void)std::printf("  file %.1f MiB before the vacuum, %.1f MiB after\n", sizeBefore,
                          MiB(scene.install.Database()));
    }
    (void)agent.AgentUnInit();
    Require(QueryNumber(scene.install.Database(), kAllRows) == kRowsAfterTrimming, "700,000 rows left");
}

void MeasureStart(const _Scene &scene) {
    scene.Restore();
    (void)std::printf("\nStart with nothing to do but the vacuum\n");
    (void)RunStart(scene, "");
}

} // namespace

int main(int argc, char **argv) {
    _Scene scene;
    scene.liRows = CountArgument(argc, argv, kDefaultRows) / kEngines * kEngines;
    scene.vecFiles = scene.install.MakeFiles(static_cast<size_t>(scene.liRows / kRowsPerFile), 64);
    scene.install.FillDatabase(scene.liRows, scene.vecFiles);
    fs::copy_file(scene.install.Database(), scene.Pristine());
    (void)std::printf("%lld rows, %.1f MiB, %d lookup threads over %zu known files\n",
                      static_cast<long long>(scene.liRows), MiB(scene.Pristine()), kLookupThreads,
                      scene.vecFiles.size());
    const bool bKept = MeasureWithdrawal(scene);
    MeasureReference(scene);
    MeasureEngineInvalidation(scene);
    MeasureTrimming(scene);
    MeasureStart(scene);
    return bKept ? EXIT_SUCCESS : EXIT_FAILURE;
}
