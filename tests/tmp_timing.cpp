// One scenario, start to shut-down with the key "protect", under every kind of fault; what a fault may cost is judged
// afterwards by a start without one and by another connection.
#include "tests/agent_fixture.h"
#include "tests/support/faults.h"

#include <iostream>
#include <random>
#include <sys/mman.h>
#include <thread>

namespace fs = std::filesystem;
using Faults::EKind;

namespace {

constexpr int kFiles = 32; // the first half is stored before the scenario
constexpr int kMarked = 8, kListed = 10, kOld = 12, kNew = 16;

enum class EExpected { Either, Stored, Gone }; // what a lookup has to say

struct _Model { // shared with the children
    std::atomic<uint64_t> nPoints;
    EExpected aeFiles[kFiles];
    int anVersions[kFiles]; // how often the file was changed
    int nLost, nWrong, iUnusable;
    double dStartSeconds;
};

} // namespace

class Faulty : public testing::Test {
  protected:
    Faulty() {
        setenv("TARN_LOG_FILE", m_install.Path("log").c_str(), 1);
        for (int i = 0; i < kFiles; ++i) {
            m_aStatus[i] = StatusOf(m_astrPath[i] = m_install.WriteFile(std::to_string(i)));
            m_astrDigest[i] = DigestText(100 + i);
        }
        EXPECT_EQ(RunInChild([this] {
                      Start();
                      Add(0, kNew);
                      _exit(LocalCacheUnInit() != TARN_OK || m_model.aeFiles[0] != EExpected::Stored);
                  }),
                  "");
        LeaveList(m_install, "engine:1\n" + m_astrDigest[kListed] + "\n" + m_astrDigest[kOld - 1] + "\n");
        m_install.WriteFile("engine/clean_engine_flag");
        EXPECT_TRUE(CSecondConnection(m_install.Database()).Run("update CT set TS=0 where ((FTV>>32)&65535)=12"));
        Copy("", "template/");
    }
    ~Faulty() override { munmap(&m_model, sizeof m_model); }

    std::string RunInChild(const std::function<void()> &body, const std::function<void(pid_t)> &onStart = {}) {
        return Faults::RunInChild(body, 20, onStart);
    }
    void Copy(const std::string &strFrom, const std::string &strTo) {
        for (const char *pszFolder : {"config", "engine"}) {
            fs::remove_all(m_install.Path(strTo + pszFolder));
            fs::create_directories(m_install.Path(strTo + pszFolder));
            fs::copy(m_install.Path(strFrom + pszFolder), m_install.Path(strTo + pszFolder),
                     fs::copy_options::recursive);
        }
    }
    void Restore() {
        Copy("template/", "");
        for (int i = 0; i < kFiles; ++i) {
            m_model.anVersions[i] = 0;
            m_model.aeFiles[i] = i < kMarked ? EExpected::Stored : i < kOld ? EExpected::Gone : EExpected::Either;
        }
        m_model.nLost = m_model.nWrong = 0;
        m_model.iUnusable = -1;
    }

    // The scenario's steps, in a child; what it may count on goes into the model.
    static bool Start() { return LocalCacheInit() == TARN_OK && LocalCacheWaitReady(10000) == TARN_OK; }
    _SCAN_FILE_RESULT VerdictOf(int i) const {
        _SCAN_FILE_RESULT verdict =
            Verdict(i / 2 * 2 == kMarked ? 48 : i, 1U + static_cast<uint32_t>(m_model.anVersions[i]));
        (void)snprintf(verdict.szVirusDesc, sizeof verdict.szVirusDesc, i % 2 == 0 ? "" : "Virus.%d", i / 4);
        return verdict;
    }
    struct stat Status(int i) const {
        struct stat status = m_aStatus[i];
        status.st_size += m_model.anVersions[i];
        return status;
    }
    void Add(int iBegin, int iEnd) {
        uint64_t nLost = 0, nLostBefore = 0;
        (void)LocalCacheFlush(0, &nLostBefore);
        bool abAdded[kFiles] = {};
        for (int i = iBegin; i < iEnd; ++i) {
            const struct stat status = Status(i);
            const _SCAN_FILE_RESULT verdict = VerdictOf(i);
            m_model.aeFiles[i] = EExpected::Either;
            abAdded[i] =
                LocalCacheAddStat(m_astrPath[i].c_str(), &status, m_astrDigest[i].c_str(), &verdict) == TARN_OK;
        }
        const bool bStored = LocalCacheFlush(10000, &nLost) == TARN_OK && nLost == nLostBefore;
        for (int i = iBegin; i < iEnd; ++i) {
            m_model.aeFiles[i] = bStored && abAdded[i] ? EExpected::Stored : m_model.aeFiles[i];
        }
    }
    uint32_t Lookup(int i) {
        char szMD5[TARN_MD5_TEXT_SIZE] = {};
        _SCAN_FILE_RESULT found = {};
        const _SCAN_FILE_RESULT verdict = VerdictOf(i);
        const struct stat status = Status(i);
        const uint32_t ulResult = i % 4 == 0 ? LocalCacheLookup(m_astrPath[i].c_str(), szMD5, &found)
                                             : LocalCacheLookupStat(m_astrPath[i].c_str(), &status, szMD5, &found);
        if (ulResult == TARN_OK && (m_model.aeFiles[i] == EExpected::Gone || m_astrDigest[i] != szMD5 ||
                                    std::memcmp(&found, &verdict, sizeof found) != 0)) {
            ++m_model.nWrong;
        }
        return ulResult;
    }
    void LookupAll() {
        for (int i = 0; i < kFiles; ++i) {
            (void)Lookup(i);
        }
    }
    void Delete(int i, uint32_t (*pDelete)(const char *), const std::string &strText) {
        m_model.aeFiles[i] = EExpected::Either;
        m_model.aeFiles[i] = pDelete(strText.c_str()) == TARN_OK ? EExpected::Gone : EExpected::Either;
    }
    static void T(int l) {
        static auto t = std::chrono::steady_clock::now();
        auto n = std::chrono::steady_clock::now();
        fprintf(stderr, "%d %.1f\n", l, std::chrono::duration<double>(n - t).count() * 1000);
        t = n;
    }
    void Play() {
        if (LocalCacheInit() != TARN_OK) {
            return;
            T(__LINE__);
        }
        LookupAll(); // withdrawals are in force before the writer has carried them out
        (void)LocalCacheWaitReady(10000);
        T(__LINE__);
        Add(kNew - 2, kFiles);
        T(__LINE__);
        LookupAll();
        T(__LINE__);
        Delete(1, LocalCacheDeleteByFileHash, m_astrDigest[1]);
        T(__LINE__);
        Delete(kNew, LocalCacheDeleteByPath, m_astrPath[kNew]);
        T(__LINE__);
        ++m_model.anVersions[3]; // the file was changed, and must not be known
        m_model.aeFiles[3] = EExpected::Gone;
        T(__LINE__);
        (void)Lookup(3);
        T(__LINE__);
        Add(3, 4);
        T(__LINE__);
        (void)LocalCacheTrim();
        T(__LINE__);
        AskAll();
        T(__LINE__);
        LookupAll();
        T(__LINE__);
        (void)LocalCacheUnInit();
        T(__LINE__);
        if (LocalCacheInitReader() == TARN_OK) {
            LookupAll();
            T(__LINE__);
            (void)LocalCacheUnInit();
            T(__LINE__);
        }
    }
    void AskAll() const {
        _LOCAL_CACHE_INFO info = {};
        info.size = sizeof info;
        _LOCAL_CACHE_EXPLANATION told = {};
        told.size = sizeof told;
        _LOCAL_CACHE_STATISTIC statistic = {};
        _SCAN_FILE_RESULT found = {};
        char szMD5[TARN_MD5_TEXT_SIZE] = {};
        uint32_t ulState = 0;
        uint64_t nCount = 0;
        (void)LocalCacheGetInfo(&info);
        (void)LocalCacheExplain(m_astrPath[5].c_str(), &told);
        (void)LocalCacheGetStatistic(&statistic);
        (void)LocalCachePeek(m_astrPath[5].c_str(), szMD5, &found, &ulState);
        (void)LocalCacheCountByFileHash(m_astrDigest[5].c_str(), &nCount);
        (void)LocalCacheEnumerate([](const _LOCAL_CACHE_RECORD *, void *) { return 0; }, nullptr);
        (void)LocalCacheCheck(nullptr, nullptr);
        (void)LocalCacheDeleteByEngine(99);
    }

    // Without a fault: what was stored answers, nothing else does, and what is added now is stored.
    void Judge() {
        const auto begin = std::chrono::steady_clock::now();
        if (!Start()) {
            m_model.iUnusable = 0;
            return;
        }
        m_model.dStartSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        for (int i = 0; i < kFiles; ++i) {
            m_model.nLost += Lookup(i) != TARN_OK && m_model.aeFiles[i] == EExpected::Stored ? 1 : 0;
        }
        Add(0, 2);
        m_model.iUnusable = Lookup(0) != TARN_OK || Lookup(1) != TARN_OK || LocalCacheUnInit() != TARN_OK ? 1 : 2;
    }
    // What is wrong after a run that ended so; "" when nothing is.
    std::string Complaints(std::string strWrong, bool bMayLose = false) {
        const std::string strJudge = RunInChild([this] { Judge(); });
        strWrong += strJudge.empty() ? "" : " then " + strJudge;
        strWrong += m_model.nWrong > 0 ? " wrong:" + std::to_string(m_model.nWrong) : "";
        strWrong += m_model.nLost > 0 && !bMayLose ? " lost:" + std::to_string(m_model.nLost) : "";
        strWrong += m_model.iUnusable == 2 ? "" : m_model.iUnusable == 0 ? " no start" : " unusable";
        strWrong += m_model.dStartSeconds > (Faults::kSanitized ? 10 : 1) ? " slow start" : "";
        const std::string strCheck = CSecondConnection(m_install.Database()).Text("pragma integrity_check");
        strWrong += strCheck == "ok" ? "" : " corrupt:" + strCheck;
        for (const auto &entry : fs::recursive_directory_iterator(m_install.Path("engine"))) {
            const std::string strName = entry.path().filename();
            const bool bOurs = entry.is_directory() || strName == "morcache.db" || strName == "morcache.key" ||
                               (bMayLose && strName.starts_with("morcache.db.damaged"));
            strWrong += bOurs ? "" : " left:" + strName;
        }
        return strWrong;
    }
    void Report(const std::string &strWhat, uint64_t nRuns, const Texts &vecWrong) {
        std::cout << strWhat << ": " << nRuns << " runs, " << vecWrong.size() << " with a complaint\n";
        for (size_t i = 0; i < std::min<size_t>(vecWrong.size(), 40); ++i) {
            std::cout << "  " << vecWrong[i] << '\n';
        }
        EXPECT_TRUE(vecWrong.empty()) << strWhat;
    }
    void EachPoint(EKind eKind, bool bForEver, uint64_t nStep) {
        std::mt19937 random(Faults::Seed());
        Texts vecWrong;
        uint64_t nRuns = 0;
        for (uint64_t nAt = 1 + random() % nStep; nRuns == 0 || m_model.nPoints >= nAt - nStep; nAt += nStep, ++nRuns) {
            Restore();
            std::string strEnd = RunInChild([&] {
                Faults::Arm(eKind, nAt, bForEver, m_model.nPoints);
                Play();
            });
            strEnd = eKind == EKind::Kill && strEnd == "signal 9" ? "" : strEnd;
            if (const std::string strWrong = Complaints(strEnd); !strWrong.empty()) {
                vecWrong.push_back("point " + std::to_string(nAt) + ": " + strWrong);
            }
        }
        Report("each " + std::to_string(nStep) + ". point", nRuns, vecWrong);
    }

    const CTempInstall m_install = CTempInstall("protect=1\ncachesize=10\nexpirepercent=30\n");
    _Model &m_model = *static_cast<_Model *>(
        mmap(nullptr, sizeof(_Model), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::string m_astrPath[kFiles], m_astrDigest[kFiles];
    struct stat m_aStatus[kFiles] = {};
};

TEST_F(Faulty, FileOperationsFailOnce) {
    EachPoint(EKind::File, false, 1);
}
TEST_F(Faulty, FileOperationsFailForEver) {
    EachPoint(EKind::File, true, 1);
}
TEST_F(Faulty, KilledAtEachFileOperation) {
    EachPoint(EKind::Kill, false, 1);
}
TEST_F(Faulty, AllocationsFailOnce) {
    EachPoint(EKind::Memory, false, 100 / Faults::Length());
}
TEST_F(Faulty, AllocationsFailForEver) {
    EachPoint(EKind::Memory, true, 100 / Faults::Length());
}

int main(int argc, char **argv) {
    Faults::Install();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
