// The C interface under many threads, and under a file-size limit.
#include "tests/agent_fixture.h"

#include <iostream>
#include <sys/resource.h>
#include <thread>

namespace {

void RunThreads(int nThreads, const std::function<void(int)> &body) {
    std::vector<std::jthread> vecThreads; // joins them
    for (int i = 0; i < nThreads; ++i) {
        vecThreads.emplace_back(body, i);
    }
}

void LimitFileSize(uint64_t nBytes) {
    const rlimit limit = {nBytes, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

} // namespace

class Threads : public CAgentTest {
  protected:
    ~Threads() override {
        LimitFileSize(RLIM_INFINITY);
        while (LocalCacheUnInit() == TARN_OK) {
        }
    }
    void MakeFiles(int nFiles) {
        for (int i = 0; i < nFiles; ++i) {
            File("engine/" + std::to_string(i));
        }
    }
    std::string Path(int iFile) const { return m_install.Path("engine/" + std::to_string(iFile)); }
    // Every value follows from the file's number and version, so any thread can tell a right answer from a wrong one.
    static _SCAN_FILE_RESULT VerdictOf(int iFile, int iVersion) {
        const int iSum = iFile + iVersion;
        return Verdict(iFile, static_cast<uint32_t>(iSum) & 0xFU, "Virus." + std::to_string(iSum % 13));
    }
    struct stat StatusOf(int iFile, int iVersion) const {
        struct stat status = ::StatusOf(Path(iFile));
        status.st_size += iVersion;
        return status;
    }
    uint32_t AddFile(int iFile, int iVersion = 0) const {
        const _SCAN_FILE_RESULT verdict = VerdictOf(iFile, iVersion);
        const struct stat status = StatusOf(iFile, iVersion);
        return LocalCacheAddStat(Path(iFile).c_str(), &status, DigestText(iFile + 1).c_str(), &verdict);
    }
    void AddFiles(int nFiles) const {
        for (int i = 0; i < nFiles; ++i) {
            ASSERT_EQ(AddFile(i), TARN_OK);
        }
    }
    bool IsHit(int iFile, int iVersion = 0) const {
        const _SCAN_FILE_RESULT verdict = VerdictOf(iFile, iVersion);
        const struct stat status = StatusOf(iFile, iVersion);
        char szMD5[TARN_MD5_TEXT_SIZE] = {};
        _SCAN_FILE_RESULT found = {};
        const uint32_t ulResult = LocalCacheLookupStat(Path(iFile).c_str(), &status, szMD5, &found);
        if (ulResult != TARN_NOT_CACHED) {
            EXPECT_EQ(ulResult, TARN_OK);
            EXPECT_EQ(szMD5, DigestText(iFile + 1));
            EXPECT_EQ(std::memcmp(&found, &verdict, sizeof found), 0) << iFile << " " << iVersion;
        }
        return ulResult == TARN_OK;
    }
};

// Each of 64 threads alone adds versions of a file of its own, and deletes it; so it knows what it has to be told, and
// what the others may be. TARN_TEST_LENGTH: the share of 30 seconds, in percent.
TEST_F(Threads, EveryAnswerWasTrueAtSomeMomentOfTheCall) {
    constexpr int kThreads = 64;
    MakeFiles(kThreads);
    Configure("protect=1\n");
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    ASSERT_TRUE(WaitForFirstStart(m_install));
    std::atomic<int> aStored[kThreads] = {}; // the version that was stored last, for all to see
    std::atomic<int> nClearsBegun = 0, nClearsEnded = 0;
    std::atomic<uint64_t> nAdded = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300 * TestLength());
    RunThreads(kThreads, [&](int i) {
        const std::function<uint32_t()> deletions[] = {
            [&] { return LocalCacheDeleteByPath(Path(i).c_str()); },
            [&] { return LocalCacheDeleteByEngine(i); },
            [&] { return LocalCacheDeleteByFileHash(DigestText(i + 1).c_str()); },
        };
        for (int iVersion = 1; std::chrono::steady_clock::now() < end; ++iVersion) {
            const int nEnded = nClearsEnded;
            EXPECT_EQ(AddFile(i, iVersion), TARN_OK);
            ++nAdded;
            EXPECT_EQ(LocalCacheFlush(60000, nullptr), TARN_OK);
            aStored[i] = iVersion;
            EXPECT_FALSE(IsHit(i, iVersion - 1)) << "superseded";
            EXPECT_TRUE(IsHit(i, iVersion) || nClearsBegun != nEnded) << "stored, and nobody cleared";
            const int iOther = (i * 7 + iVersion) % kThreads;
            const int iOld = aStored[iOther] - 1;
            EXPECT_FALSE(IsHit(iOther, iOld)) << "another's, superseded before";
            (void)IsHit(iOther, iOld + 1 + iVersion % 2);
            if (iVersion % 4 == 0) {
                EXPECT_EQ(deletions[iVersion / 4 % 3](), TARN_OK);
                EXPECT_FALSE(IsHit(i, iVersion)) << "deleted";
            }
            if (i == 0 && iVersion % 16 == 0) {
                TestLoop::s_bFire = true;
                ++nClearsBegun;
                EXPECT_EQ(LocalCacheClear(), TARN_OK);
                ++nClearsEnded;
            }
        }
    });
    _LOCAL_CACHE_INFO info = {};
    info.size = sizeof info;
    EXPECT_EQ(LocalCacheGetInfo(&info), TARN_OK);
    EXPECT_EQ(info.ullAdded, nAdded); // every addition, exactly once
    std::cout << kThreads << " threads: " << nAdded << " additions, " << info.ullHits + info.ullMisses << " lookups\n";
    EXPECT_EQ(LocalCacheUnInit(), TARN_OK);
    EXPECT_EQ(Query("pragma integrity_check"), "ok");
    for (const std::string &strLine : RecordedLog::Texts(2)) { // a vacuum gives way to readers; nothing else may fail
        EXPECT_NE(strLine.find("cannot VACUUM - SQL statements in progress"), std::string::npos) << strLine;
    }
}

TEST_F(Threads, AHostThatHoldsTheMutexHoldsUpStartsAndEnds) {
    for (uint32_t (*const pCall)() : {LocalCacheInit, LocalCacheInitEx, LocalCacheUnInit}) {
        std::atomic<bool> bReturned = false;
        ASSERT_EQ(pthread_mutex_lock(&g_DBMutex), 0);
        std::jthread caller([&] {
            EXPECT_EQ(pCall(), TARN_OK);
            bReturned = true;
        });
        EXPECT_TRUE(WaitFor([] { return g_DBMutex.__data.__lock == 2; })); // somebody waits for it
        EXPECT_FALSE(bReturned);
        ASSERT_EQ(pthread_mutex_unlock(&g_DBMutex), 0);
    }
}

TEST_F(Threads, AFullDiskLosesTheBatchByNameAndNothingElse) {
    constexpr int kFiles = 3000;
    MakeFiles(kFiles);
    Configure("cachesize=10\nexpiretime=99999999999\n"); // few pages, so that the inserts themselves have to write
    LimitFileSize(0);
    EXPECT_EQ(LocalCacheInit(), TARN_E_FAIL);
    LimitFileSize(RLIM_INFINITY);
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    AddFiles(50);
    ASSERT_EQ(LocalCacheFlush(60000, nullptr), TARN_OK);
    LimitFileSize(std::filesystem::file_size(m_install.Database()));
    AddFiles(kFiles);
    EXPECT_TRUE(
        WaitFor([] { return RecordedLog::Contains("[DoBatchWriteJobs]InsertRecord failed with error code = 10"); }));
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(IsHit(i)) << i; // what was stored before answers
    }
    LimitFileSize(0); // a caller's own write fails too, and its thread lives
    _SCAN_FILE_RESULT verdict = Verdict(1, 1, "New.Virus");
    EXPECT_EQ(LocalCacheAdd(Path(0).c_str(), DigestText(1).c_str(), &verdict), TARN_E_FAIL);
    EXPECT_EQ(LocalCacheDeleteByFileHash(DigestText(1).c_str()), TARN_E_FAIL);
    LimitFileSize(RLIM_INFINITY);
    EXPECT_EQ(LocalCacheFlush(60000, nullptr), TARN_OK);
    const std::string strJournal = m_install.Database() + "-journal";
    const CSecondConnection other(m_install.Database());
    ASSERT_TRUE(other.Run("begin; update CT set QC = QC + 1"));
    ASSERT_EQ(sqlite3_db_cacheflush(other.m_pDB), SQLITE_OK);
    const std::string strLeft = ReadWholeFile(strJournal); // as a killed process leaves it
    ASSERT_TRUE(other.Run("rollback"));
    m_install.WriteFile("engine/cache/morcache.db-journal", strLeft);
    char szMD5[TARN_MD5_TEXT_SIZE] = {};
    LimitFileSize(512); // the next to read rolls it back, which is refused, and lives
    EXPECT_EQ(LocalCacheLookup(Path(0).c_str(), szMD5, &verdict), TARN_NOT_CACHED);
    LimitFileSize(RLIM_INFINITY);
    EXPECT_TRUE(IsHit(0));
    EXPECT_FALSE(Exists(strJournal));
    AddFiles(kFiles);
    EXPECT_EQ(LocalCacheUnInit(), TARN_OK);
    EXPECT_EQ(Rows(), kFiles);
    EXPECT_EQ(Query("pragma integrity_check"), "ok");
}
