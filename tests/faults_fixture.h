// faults_fixture.h - one scenario, from start to shut-down with the key "protect", for every kind of fault. What a
// fault cost is judged afterwards: by a start without one, by another connection, and by the files that are left.
#ifndef TARN_TESTS_FAULTS_FIXTURE_H
#define TARN_TESTS_FAULTS_FIXTURE_H

#include "tests/agent_fixture.h"
#include "tests/support/faults.h"

#include <fstream>
#include <iostream>
#include <random>
#include <sys/mman.h>

namespace fs = std::filesystem;

// Files by number: stored before the scenario; of these withdrawn by the engine's marker, withdrawn by the list, long
// unused; the others are added by it.
constexpr int kMarked = 8, kListed = 10, kUnused = 12, kNew = 16, kFiles = 32;

enum class EExpected { Either, Stored, Gone }; // what a lookup has to say

struct _Model { // shared with the children
    std::atomic<uint64_t> nPoints;
    EExpected aeFiles[kFiles];
    int nLost, nWrong;
    bool bUsable;
    double dSeconds; // that the start took
};

template <typename Record> Record Sized() {
    Record record = {};
    record.size = sizeof record;
    return record;
}

class Faults : public testing::Test {
  protected:
    Faults() {
        setenv("TARN_LOG_FILE", m_install.Path("log").c_str(), 1);
        for (int i = 0; i < kFiles; ++i) {
            m_astrPath[i] = m_install.WriteFile(std::to_string(i));
            m_astrDigest[i] = DigestText(100 + i);
        }
        EXPECT_EQ(InChild([this] { _exit(!Start() || !Add(0, kNew) || LocalCacheUnInit() != TARN_OK); }), "");
        LeaveList(m_install, "engine:1\n" + m_astrDigest[kListed] + "\n" + m_astrDigest[kListed + 1] + "\n");
        m_install.WriteFile("engine/clean_engine_flag");
        EXPECT_TRUE(Database().Run("update CT set TS=0 where (FTV>>32)&65535 >= 12"));
        Copy("", "template/");
    }
    ~Faults() override { munmap(&m_model, sizeof m_model); }
    void Copy(const std::string &strFrom, const std::string &strTo) const {
        for (const char *pszFolder : {"config", "engine"}) {
            fs::remove_all(m_install.Path(strTo + pszFolder));
            fs::create_directories(m_install.Path(strTo + pszFolder));
            fs::copy(m_install.Path(strFrom + pszFolder), m_install.Path(strTo + pszFolder),
                     fs::copy_options::recursive);
        }
    }
    CSecondConnection Database() const { return CSecondConnection(m_install.Database()); }
    static std::string InChild(const std::function<void()> &body) { return RunInChild(body, std::chrono::minutes(2)); }

    // The scenario's steps, in a child. What it may count on from then on goes into the model.
    static bool Start() { return LocalCacheInit() == TARN_OK && LocalCacheWaitReady(10000) == TARN_OK; }
    static _SCAN_FILE_RESULT VerdictOf(int i) {
        const char *pszVirus[] = {"", "Virus.0", "Virus.1", "Virus.2"};
        return Verdict(i / 2 * 2 == kMarked ? 48 : i, 1, pszVirus[i % 4]);
    }
    bool Add(int iBegin, int iEnd) {
        std::fill(&m_model.aeFiles[iBegin], &m_model.aeFiles[0] + iEnd, EExpected::Either);
        uint64_t anLost[2] = {};
        bool bStored = LocalCacheFlush(0, &anLost[0]) != TARN_E_NOT_INITIALIZED;
        for (int i = iBegin; i < iEnd; ++i) {
            _SCAN_FILE_RESULT verdict = VerdictOf(i);
            bStored &= LocalCacheAdd(m_astrPath[i].c_str(), m_astrDigest[i].c_str(), &verdict) == TARN_OK;
        }
        bStored &= LocalCacheFlush(10000, &anLost[1]) == TARN_OK && anLost[0] == anLost[1];
        std::fill(&m_model.aeFiles[iBegin], &m_model.aeFiles[0] + iEnd,
                  bStored ? EExpected::Stored : EExpected::Either);
        return bStored;
    }
    void LookupAll() {
        for (int i = 0; i < kFiles; ++i) {
            char szMD5[TARN_MD5_TEXT_SIZE] = {};
            _SCAN_FILE_RESULT found = {};
            const _SCAN_FILE_RESULT verdict = VerdictOf(i);
            if (LocalCacheLookup(m_astrPath[i].c_str(), szMD5, &found) != TARN_OK) {
                m_model.nLost += m_model.aeFiles[i] == EExpected::Stored ? 1 : 0;
            } else if (m_model.aeFiles[i] == EExpected::Gone || m_astrDigest[i] != szMD5 ||
                       std::memcmp(&found, &verdict, sizeof found) != 0) {
                ++m_model.nWrong;
            }
        }
    }
    void Delete(int i, uint32_t (*pDelete)(const char *), const std::string &strText) {
        m_model.aeFiles[i] = EExpected::Either;
        // Damage may bring a record back; what it says of the file still holds.
        m_model.aeFiles[i] = pDelete(strText.c_str()) == TARN_OK && !m_bDamage ? EExpected::Gone : EExpected::Either;
    }
    void Play() {
        if (LocalCacheInit() == TARN_OK) {
            LookupAll(); // withdrawals are in force before the writer has carried them out
            (void)LocalCacheWaitReady(10000);
            (void)Add(kNew - 2, kFiles);
            Delete(1, LocalCacheDeleteByFileHash, m_astrDigest[1]);
            Delete(kNew, LocalCacheDeleteByPath, m_astrPath[kNew]);
            LookupAll();
            AskAll();
            (void)LocalCacheUnInit();
        }
        if (LocalCacheInitReader() == TARN_OK) {
            LookupAll();
            (void)LocalCacheUnInit();
        }
    }
    void AskAll() const {
        auto info = Sized<_LOCAL_CACHE_INFO>();
        auto told = Sized<_LOCAL_CACHE_EXPLANATION>();
        auto scan = Sized<_LOCAL_CACHE_SCAN>();
        _LOCAL_CACHE_STATISTIC statistic = {};
        _SCAN_FILE_RESULT found = {};
        char szMD5[TARN_MD5_TEXT_SIZE] = {};
        uint32_t ulState = 0;
        uint64_t nCount = 0;
        (void)LocalCacheGetInfo(&info);
        (void)LocalCacheExplain(m_astrPath[5].c_str(), &told);
        (void)LocalCacheScanBegin(0, &scan);
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
        m_model.nLost = 0; // so far: under the fault
        LookupAll();
        m_model.bUsable = bStarted && Add(0, 2) && LocalCacheUnInit() == TARN_OK;
    }

    // One run of the scenario on a fresh copy, and what is wrong after it; "" when nothing is. bDamage: what was stored
    // may go, and damage that is found only then is healed by the start after the next.
    std::string RunOnce(const std::function<std::string()> &run, bool bDamage = false) {
        Copy("template/", "");
        m_bDamage = bDamage;
        for (int i = 0; i < kFiles; ++i) {
            m_model.aeFiles[i] = i < kUnused ? EExpected::Gone : EExpected::Either;
        }
        std::fill_n(m_model.aeFiles, kMarked, EExpected::Stored);
        if (bDamage) { // an index that has forgotten a digest lets its record go on answering, and rightly
            std::fill(&m_model.aeFiles[kListed], &m_model.aeFiles[kUnused], EExpected::Either);
        }
        m_model.nWrong = 0;
        std::string strWrong = run();
        for (int iStart = 0; iStart == 0 || (iStart == 1 && bDamage && !m_model.bUsable); ++iStart) {
            m_model.bUsable = false;
            strWrong += InChild([this] { Judge(); });
        }
        m_dSlowest = std::max(m_dSlowest, m_model.dSeconds);
        strWrong += m_model.nWrong > 0 ? " wrong:" + std::to_string(m_model.nWrong) : "";
        strWrong += m_model.nLost > 0 && !bDamage ? " lost:" + std::to_string(m_model.nLost) : "";
        strWrong += m_model.bUsable ? "" : " unusable";
        strWrong += bDamage || Database().Text("pragma integrity_check") == "ok" ? "" : " corrupt";
        for (const auto &entry : fs::recursive_directory_iterator(m_install.Path("engine"))) {
            const std::string strName = entry.path().filename();
            const bool bOurs = entry.is_directory() || strName == "morcache.db" || strName == "morcache.key" ||
                               (bDamage && strName.find(".damaged") != std::string::npos);
            strWrong += bOurs ? "" : " left:" + strName;
        }
        return strWrong;
    }
    void Run(const char *pszWhat, uint64_t nRuns, const std::function<std::string(uint64_t)> &run,
             bool bDamage = false) {
        Texts vecWrong;
        for (uint64_t i = 0; i < nRuns; ++i) {
            if (const std::string strWrong = RunOnce([&] { return run(i); }, bDamage); !strWrong.empty()) {
                vecWrong.push_back(std::to_string(i) + ": " + strWrong);
            }
        }
        std::cout << pszWhat << ": " << nRuns << " runs, " << vecWrong.size() << " with a complaint, slowest start "
                  << m_dSlowest << " s, seed " << m_ulSeed << std::endl;
        EXPECT_EQ(vecWrong, Texts()) << pszWhat << ", seed " << m_ulSeed;
    }
    std::string PlayWith(EFault eKind, uint64_t nAt, bool bForEver = false) {
        return InChild([=, this] {
            g_plan = {eKind, nAt, bForEver, &(m_model.nPoints = 0, m_model.nPoints)};
            Play();
        });
    }
    uint64_t CountPoints(EFault eKind) {
        EXPECT_EQ(RunOnce([=, this] { return PlayWith(eKind, 0); }), "");
        (void)PlayWith(eKind, 0);
        return m_model.nPoints;
    }
    void EachPoint(const char *pszWhat, EFault eKind, bool bForEver = false) {
        const uint64_t nStep = std::max<uint64_t>(100 / TestLength(), 1);
        const uint64_t nFirst = 1 + m_random() % nStep;
        Run(pszWhat, CountPoints(eKind) / nStep, [=, this](uint64_t i) {
            const std::string strEnd = PlayWith(eKind, nFirst + i * nStep, bForEver);
            return eKind == EFault::Kill && strEnd == "signal 9" ? "" : strEnd;
        });
    }
    void Damage() {
        const std::string strJournal = m_install.Database() + "-journal";
        const bool bJournal = m_random() % 2 == 0 && !ReadWholeFile(strJournal).empty();
        std::string strBytes = ReadWholeFile(bJournal ? strJournal : m_install.Database());
        const auto nAt = [&] { return m_random() % strBytes.size(); };
        switch (m_random() % 4) {
        case 0: // a part of the file
            strBytes.resize(nAt());
            break;
        case 1: // an empty page
            strBytes.replace(nAt() / 4096 * 4096, 4096, 4096, '\0');
            break;
        default:
            for (auto nFlips = 1 + m_random() % 8; nFlips > 0; --nFlips) {
                strBytes[nAt()] ^= static_cast<char>(1 << m_random() % 8);
            }
        }
        std::ofstream(bJournal ? strJournal : m_install.Database(), std::ios::binary) << strBytes;
    }

    const CTempInstall m_install = CTempInstall("protect=1\ncachesize=10\n");
    _Model &m_model = *static_cast<_Model *>(
        mmap(nullptr, sizeof(_Model), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::string m_astrPath[kFiles], m_astrDigest[kFiles];
    const unsigned int m_ulSeed = std::random_device()();
    std::mt19937 m_random = std::mt19937(m_ulSeed);
    double m_dSlowest = 0;
    bool m_bDamage = false; // of the run at hand
};

#endif
