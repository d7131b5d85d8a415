// faults_fixture.h - one scenario, from start to shut-down with the key "protect", and what it may count on under every
// kind of fault. Included once per test program.
#ifndef TARN_TESTS_FAULTS_FIXTURE_H
#define TARN_TESTS_FAULTS_FIXTURE_H

#include "tests/agent_fixture.h"
#include "tests/support/faults.h"

#include <fstream>
#include <iostream>
#include <random>
#include <sys/mman.h>

namespace fs = std::filesystem;
using Faults::EKind;

// Files by number: stored before the scenario; of these withdrawn by the engine's marker, withdrawn by the list, long
// unused; the others are added by it.
constexpr int kMarked = 8, kListed = 10, kUnused = 12, kNew = 16, kFiles = 32;

enum class EExpected { Either, Stored, Gone }; // what a lookup has to say

struct _Model { // shared with the children
    std::atomic<uint64_t> nPoints;
    EExpected aeFiles[kFiles];
    int anVersions[kFiles]; // how often the file was changed
    int nLost, nWrong;
    bool bUsable;
    double dSeconds; // that the start took
};

class Faulty : public testing::Test {
  protected:
    Faulty() {
        setenv("TARN_LOG_FILE", m_install.Path("log").c_str(), 1);
        for (int i = 0; i < kFiles; ++i) {
            m_astrPath[i] = m_install.WriteFile(std::to_string(i));
            m_astrDigest[i] = DigestText(100 + i);
        }
        const auto store = [this] { _exit(!Start() || !Add(0, kNew) || LocalCacheUnInit() != TARN_OK); };
        EXPECT_EQ(Faults::RunInChild(store), "");
        LeaveList(m_install, "engine:1\n" + m_astrDigest[kListed] + "\n" + m_astrDigest[kListed + 1] + "\n");
        m_install.WriteFile("engine/clean_engine_flag");
        EXPECT_TRUE(Database().Run("update CT set TS=0 where (FTV>>32)&65535 >= 12"));
        Copy("", "template/");
    }
    ~Faulty() override { munmap(&m_model, sizeof m_model); }
    CSecondConnection Database() const { return CSecondConnection(m_install.Database()); }
    void Copy(const std::string &strFrom, const std::string &strTo) const {
        for (const char *pszFolder : {"config", "engine"}) {
            fs::remove_all(m_install.Path(strTo + pszFolder));
            fs::create_directories(m_install.Path(strTo + pszFolder));
            fs::copy(m_install.Path(strFrom + pszFolder), m_install.Path(strTo + pszFolder),
                     fs::copy_options::recursive);
        }
    }

    // The scenario's steps, in a child. What it may count on from then on goes into the model.
    static bool Start() { return LocalCacheInit() == TARN_OK && LocalCacheWaitReady(10000) == TARN_OK; }
    _SCAN_FILE_RESULT VerdictOf(int i) const {
        const char *pszVirus[] = {"", "Virus.0", "Virus.1", "Virus.2"};
        return Verdict(i / 2 * 2 == kMarked ? 48 : i, 1U + static_cast<uint32_t>(m_model.anVersions[i]),
                       pszVirus[i % 4]);
    }
    struct stat StatusOf(int i) const {
        struct stat status = ::StatusOf(m_astrPath[i]);
        status.st_size += m_model.anVersions[i];
        return status;
    }
    bool Add(int iBegin, int iEnd) {
        uint64_t anLost[2] = {};
        bool bStored = LocalCacheFlush(0, &anLost[0]) != TARN_E_NOT_INITIALIZED;
        for (int i = iBegin; i < iEnd; ++i) {
            const struct stat status = StatusOf(i);
            const _SCAN_FILE_RESULT verdict = VerdictOf(i);
            m_model.aeFiles[i] = EExpected::Either;
            bStored &= LocalCacheAddStat(m_astrPath[i].c_str(), &status, m_astrDigest[i].c_str(), &verdict) == TARN_OK;
        }
        bStored &= LocalCacheFlush(10000, &anLost[1]) == TARN_OK && anLost[0] == anLost[1];
        std::fill(&m_model.aeFiles[iBegin], &m_model.aeFiles[0] + iEnd,
                  bStored ? EExpected::Stored : EExpected::Either);
        return bStored;
    }
    void Lookup(int i) {
        char szMD5[TARN_MD5_TEXT_SIZE] = {};
        _SCAN_FILE_RESULT found = {};
        const _SCAN_FILE_RESULT verdict = VerdictOf(i);
        const struct stat status = StatusOf(i);
        if (LocalCacheLookupStat(m_astrPath[i].c_str(), &status, szMD5, &found) != TARN_OK) {
            m_model.nLost += m_model.aeFiles[i] == EExpected::Stored ? 1 : 0;
        } else if (m_model.aeFiles[i] == EExpected::Gone || m_astrDigest[i] != szMD5 ||
                   std::memcmp(&found, &verdict, sizeof found) != 0) {
            ++m_model.nWrong;
        }
    }
    void LookupAll() {
        for (int i = 0; i < kFiles; ++i) {
            Lookup(i);
        }
    }
    void Delete(int i, uint32_t (*pDelete)(const char *), const std::string &strText) {
        m_model.aeFiles[i] = EExpected::Either;
        m_model.aeFiles[i] = pDelete(strText.c_str()) == TARN_OK ? EExpected::Gone : EExpected::Either;
    }
    void Play() {
        if (LocalCacheInit() == TARN_OK) {
            LookupAll(); // withdrawals are in force before the writer has carried them out
            (void)LocalCacheWaitReady(10000);
            (void)Add(kNew - 2, kFiles);
            Delete(1, LocalCacheDeleteByFileHash, m_astrDigest[1]);
            Delete(kNew, LocalCacheDeleteByPath, m_astrPath[kNew]);
            ++m_model.anVersions[3]; // the file was changed, and must not be known
            m_model.aeFiles[3] = EExpected::Gone;
            LookupAll();
            (void)Add(3, 4);
            AskAll();
            (void)LocalCacheUnInit();
        }
        if (LocalCacheInitReader() == TARN_OK) {
            LookupAll();
            (void)LocalCacheUnInit();
        }
    }
    void AskAll() const {
        _LOCAL_CACHE_INFO info = {};
        _LOCAL_CACHE_EXPLANATION told = {};
        _LOCAL_CACHE_STATISTIC statistic = {};
        _SCAN_FILE_RESULT found = {};
        char szMD5[TARN_MD5_TEXT_SIZE] = {};
        uint32_t ulState = 0;
        uint64_t nCount = 0;
        (void)LocalCacheGetInfo(&(info.size = sizeof info, info));
        (void)LocalCacheExplain(m_astrPath[5].c_str(), &(told.size = sizeof told, told));
        (void)LocalCacheGetStatistic(&statistic);
        (void)LocalCachePeek(m_astrPath[5].c_str(), szMD5, &found, &ulState);
        (void)LocalCacheCountByFileHash(m_astrDigest[5].c_str(), &nCount);
        (void)LocalCacheEnumerate([](const _LOCAL_CACHE_RECORD *, void *) { return 0; }, nullptr);
        (void)LocalCacheCheck(nullptr, nullptr);
        (void)LocalCacheDeleteByEngine(99);
        (void)LocalCacheTrim();
    }
    // Without a fault: what was stored answers, nothing else does, and what is added now is stored.
    void Judge() {
        const auto begin = std::chrono::steady_clock::now();
        const bool bStarted = Start();
        m_model.dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        m_model.nLost = 0; // whatever did not answer under the fault
        LookupAll();
        m_model.bUsable = bStarted && Add(0, 2) && LocalCacheUnInit() == TARN_OK;
    }
    // What is wrong after a run that ended so; "" when nothing is.
    std::string Complaints(std::string strWrong, bool bMayLose) {
        const std::string strJudge = Faults::RunInChild([this] { Judge(); });
        strWrong += strJudge.empty() ? "" : " then " + strJudge;
        strWrong += m_model.nWrong > 0 ? " wrong:" + std::to_string(m_model.nWrong) : "";
        strWrong += m_model.nLost > 0 && !bMayLose ? " lost:" + std::to_string(m_model.nLost) : "";
        strWrong += m_model.bUsable ? "" : " unusable";
        m_dSlowest = std::max(m_dSlowest, m_model.dSeconds);
        const std::string strCheck = Database().Text("pragma integrity_check");
        strWrong += strCheck == "ok" || bMayLose ? "" : " corrupt:" + strCheck;
        strWrong += m_model.dSeconds < 1 || Faults::kSanitized ? "" : " slow";
        for (const auto &entry : fs::recursive_directory_iterator(m_install.Path("engine"))) {
            const std::string strName = entry.path().filename();
            const bool bOurs = entry.is_directory() || strName == "morcache.db" || strName == "morcache.key" ||
                               (bMayLose && strName.starts_with("morcache.db.damaged"));
            strWrong += bOurs ? "" : " left:" + strName;
        }
        return strWrong;
    }
    // One run on a fresh copy, and what is wrong after it.
    std::string RunOnce(const std::function<std::string()> &run, bool bMayLose) {
        Copy("template/", "");
        std::fill_n(m_model.anVersions, kFiles, 0);
        for (int i = 0; i < kFiles; ++i) {
            m_model.aeFiles[i] = i < kMarked ? EExpected::Stored : i < kUnused ? EExpected::Gone : EExpected::Either;
        }
        m_model.nWrong = 0;
        m_model.bUsable = false;
        const std::string strEnd = run();
        return Complaints(strEnd, bMayLose);
    }
    void Run(const char *pszWhat, uint64_t nRuns, const std::function<std::string(uint64_t)> &run,
             bool bMayLose = false) {
        Texts vecWrong;
        for (uint64_t i = 0; i < nRuns; ++i) {
            if (const std::string strWrong = RunOnce([&] { return run(i); }, bMayLose); !strWrong.empty()) {
                vecWrong.push_back(std::to_string(i) + ": " + strWrong);
            }
        }
        std::cout << pszWhat << ": " << nRuns << " runs, " << vecWrong.size() << " with a complaint, slowest start "
                  << m_dSlowest << " s, seed " << m_ulSeed << "\n";
        EXPECT_EQ(vecWrong, Texts()) << pszWhat << ", seed " << m_ulSeed;
    }
    std::string PlayWith(EKind eKind, uint64_t nAt, bool bForEver) {
        return Faults::RunInChild([&] {
            Faults::Arm(eKind, nAt, bForEver, m_model.nPoints);
            Play();
        });
    }
    void EachPoint(const char *pszWhat, EKind eKind, bool bForEver = false) {
        Run("a run without a fault", 1, [&](uint64_t) { return PlayWith(eKind, 0, false); });
        const uint64_t nStep = std::max<uint64_t>(100 / TestLength(), 1);
        const uint64_t nFirst = 1 + m_random() % nStep;
        Run(pszWhat, m_model.nPoints / nStep, [&](uint64_t i) {
            const std::string strEnd = PlayWith(eKind, nFirst + i * nStep, bForEver);
            return eKind == EKind::Kill && strEnd == "killed" ? "" : strEnd;
        });
    }
    void Damage() {
        const std::string strJournal = m_install.Database() + "-journal";
        const bool bJournal = m_random() % 2 == 0 && !ReadWholeFile(strJournal).empty();
        const std::string strPath = bJournal ? strJournal : m_install.Database();
        std::string strBytes = ReadWholeFile(strPath);
        switch (m_random() % 4) {
        case 0: // less of the file
            strBytes.resize(m_random() % strBytes.size());
            break;
        case 1: // no page
            strBytes.replace(m_random() % strBytes.size() / 4096 * 4096, 4096, 4096, '\0');
            break;
        default:
            for (auto nFlips = 1 + m_random() % 8; nFlips > 0; --nFlips) {
                char &ch = strBytes[m_random() % strBytes.size()];
                ch = static_cast<char>(ch ^ 1 << m_random() % 8);
            }
        }
        std::ofstream(strPath, std::ios::binary) << strBytes;
    }

    const CTempInstall m_install = CTempInstall("protect=1\ncachesize=10\n");
    _Model &m_model = *static_cast<_Model *>(
        mmap(nullptr, sizeof(_Model), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::string m_astrPath[kFiles], m_astrDigest[kFiles];
    const unsigned int m_ulSeed = std::random_device()();
    std::mt19937 m_random = std::mt19937(m_ulSeed);
    double m_dSlowest = 0;
};

#endif
