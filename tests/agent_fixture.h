// agent_fixture.h - an agent over a temporary installation, a look at what its connection executes, a hook into its
// shut-down, and what all tests of a cache share. Included once per test program.
#ifndef TARN_TESTS_AGENT_FIXTURE_H
#define TARN_TESTS_AGENT_FIXTURE_H

#include "agent/dbagent.h"
#include "interface/tarncache.h"
#include "platform/tarncore.h"
#include "tests/support/install.h"
#include "tests/support/services.h"

#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

using Texts = std::vector<std::string>;

// The library's own connection, found when it is opened, and what sees each statement run on it; set before the start.
inline std::atomic<bool> g_bWatch = false;
inline sqlite3 *g_pLibrary = nullptr;
inline std::function<void(const std::string &)> g_onStatement;

inline int OnStatement(unsigned int, void *, void *, void *pText) {
    g_onStatement(static_cast<const char *>(pText));
    return 0;
}

inline int OnOpen(sqlite3 *pDB, char **, const sqlite3_api_routines *) {
    if (g_bWatch) {
        g_pLibrary = pDB;
        sqlite3_trace_v2(pDB, g_onStatement ? SQLITE_TRACE_STMT : 0U, OnStatement, nullptr);
    }
    return SQLITE_OK;
}

// Runs when a shut-down has cleared the running flag and is about to wait for the writer.
inline std::function<void()> g_onJoin;

extern "C" int pthread_join(pthread_t thread, void **ppResult) {
    static const auto pJoin = reinterpret_cast<int (*)(pthread_t, void **)>(dlsym(RTLD_NEXT, "pthread_join"));
    if (const auto onJoin = std::exchange(g_onJoin, nullptr)) {
        onJoin();
    }
    return pJoin(thread, ppResult);
}

inline std::string DigestText(int iNumber) {
    char szText[TARN_MD5_TEXT_SIZE] = {};
    (void)snprintf(szText, sizeof szText, "%032x", static_cast<unsigned int>(iNumber));
    return szText;
}

inline _SCAN_FILE_RESULT Verdict(int32_t lEngineCode, uint32_t ulFlags = 1, const std::string &strDesc = "") {
    _SCAN_FILE_RESULT result = {{}, lEngineCode, {}, ulFlags, {}, {}};
    std::memcpy(result.szVirusDesc, strDesc.data(), strDesc.size());
    return result;
}

struct _Row { // of the cache table
    int64_t liKey;
    int iEngine = 1;
    int iQueryCount = 0;
    int64_t liTime = 0;
    int iDigest = 0;
};

inline std::string InsertTexts(const std::vector<_Row> &vecRows) {
    std::string strText = "begin;";
    for (const _Row &row : vecRows) {
        const auto liLowMD5 = static_cast<int64_t>(__builtin_bswap64(static_cast<uint64_t>(row.iDigest)));
        char szRow[256] = {};
        (void)snprintf(szRow, sizeof szRow, "replace into CT values(%ld,0,%ld,0,%ld,%d,%ld,0,'');", row.liKey,
                       int64_t{row.iEngine} << 32, liLowMD5, row.iQueryCount, row.liTime);
        strText += szRow;
    }
    return strText + "commit";
}

// The start is counted behind its vacuum, which keeps other connections out.
inline bool WaitForFirstStart(const CTempInstall &install) {
    return WaitFor([&] { return ReadWholeFile(install.Config()).find("counts=1") != std::string::npos; });
}

inline std::string Encipher(std::string strText) {
    RC4_STATE state = {};
    unsigned char abBlock[256] = {}; // becomes what every block is combined with
    RC4_set_key(&state, 14, reinterpret_cast<const unsigned char *>("fourteen bytes"));
    RC4_crypt(&state, sizeof abBlock, abBlock, abBlock);
    for (size_t i = 0; i < strText.size(); ++i) {
        strText[i] = static_cast<char>(strText[i] ^ abBlock[i % sizeof abBlock]);
    }
    return strText;
}

// A list of withdrawn digests with its key and its marker.
inline void LeaveList(const CTempInstall &install, const std::string &strText) {
    const std::string strKey = "[avscan]\nmor_secret=666f75727465656e206279746573\n";
    std::filesystem::permissions(install.WriteFile("config/business.ini", strKey), std::filesystem::perms{0600});
    install.WriteFile("engine/kelmorehash/update_cache.dat", Encipher(strText));
    install.WriteFile("engine/clean_engine_hash_flag");
}

class CAgentTest : public testing::Test {
  protected:
    CAgentTest() {
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(OnOpen));
        RecordedLog::SetSource("dbagent");
        RecordedLog::SetDebug(false);
        TestClock::s_liTime = -1;
        TestLoop::Reset();
    }
    ~CAgentTest() override {
        (void)Stop();
        g_onStatement = nullptr;
    }
    void Configure(const std::string &strKeys) { m_install.WriteFile("config/tarncfg.ini", "[cacheeng]\n" + strKeys); }
    uint32_t Start(int iMode = 1) { // 0: with the writer thread
        (void)Stop();
        m_pAgent = std::make_unique<CDataBaseAgent>();
        g_bWatch = true;
        const uint32_t ulResult = m_pAgent->AgentInit(iMode);
        g_bWatch = false;
        m_pAgent = ulResult == TARN_OK ? std::move(m_pAgent) : nullptr;
        return ulResult;
    }
    uint32_t Stop() {
        const auto pAgent = std::move(m_pAgent);
        return pAgent != nullptr ? pAgent->AgentUnInit() : TARN_OK;
    }
    std::string File(const std::string &strName) { return m_install.WriteFile(strName); }
    uint32_t Add(const std::string &strPath, _SCAN_FILE_RESULT verdict = Verdict(1)) {
        return m_pAgent->CacheAdd(strPath.c_str(), DigestText(7).c_str(), &verdict);
    }
    void Write(const std::string &strPath, const _SCAN_FILE_RESULT &verdict = Verdict(1)) {
        ASSERT_EQ(Add(strPath, verdict), TARN_OK);
        m_pAgent->RunWritePass(false);
    }
    uint32_t Lookup(const std::string &strPath) { return m_pAgent->CacheLookup(strPath.c_str(), m_szMD5, &m_found); }
    bool Run(const std::string &strSQL) { return CSecondConnection(m_install.Database()).Run(strSQL); }
    std::string Query(const std::string &strSQL) { return CSecondConnection(m_install.Database()).Text(strSQL); }
    int64_t Rows(const std::string &strWhere = "1") {
        return CSecondConnection(m_install.Database()).Number("select count(*) from CT where " + strWhere);
    }
    int64_t RowsOfEngine(int iEngine) { return Rows("((FTV >> 32) & 0xffff) = " + std::to_string(iEngine)); }
    std::string Keys() { return Query("select group_concat(FPH) from (select FPH from CT order by FPH)"); }
    _DBStatistics Statistics() {
        _DBStatistics statistics = {};
        EXPECT_EQ(m_pAgent->GetCacheStatistic(&statistics), TARN_OK);
        return statistics;
    }

    CTempInstall m_install;
    std::unique_ptr<CDataBaseAgent> m_pAgent;
    char m_szMD5[TARN_MD5_TEXT_SIZE] = {};
    _SCAN_FILE_RESULT m_found = {};
};

#endif
