// The table framework, and the single-record operations of the cache and version tables.
#include "tables/cachetable.h"
#include "tables/versiontable.h"
#include "tables/vsdesctable.h"
#include "tests/support/install.h"
#include "tests/support/services.h"

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <sqlite3.h>

namespace {

using Results = std::vector<int64_t>; // of calls one after the other
constexpr uint32_t kNoRow = SQLITE_DONE;
int g_nBusyTimeouts = 0; // how often an operation asked for one
int g_nBusyAttempts = 0; // how often it found the database busy
int g_nReleaseAt = 0;    // the blocking transaction ends behind this attempt; 0: never
const CSecondConnection *g_pBlocker = nullptr;

// SQLite calls it for each attempt that meets a lock; waiting takes no time here.
int OnBusy(void *, int) {
    if (++g_nBusyAttempts == g_nReleaseAt) {
        EXPECT_TRUE(g_pBlocker->Run("rollback"));
    }
    return 0;
}

class Tables : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(TableCreateCheckRebuild(&cache) | TableCreateCheckRebuild(&virus) | TableCreateCheckRebuild(&version),
                  TARN_OK);
        RecordedLog::SetSource("cachetable");
    }
    const CTempInstall install;
    const CSecondConnection db = CSecondConnection(install.Database());
    CCacheTable cache = CCacheTable(db.m_pDB);
    CVirusTable virus = CVirusTable(db.m_pDB);
    CVersionTable version = CVersionTable(db.m_pDB);
};

} // namespace

extern "C" int sqlite3_busy_timeout(sqlite3 *, int ms) {
    EXPECT_EQ(ms, 1500);
    ++g_nBusyTimeouts;
    return SQLITE_OK;
}

TEST_F(Tables, StatementTextsAreTheExpectedOnesAndAcceptedBySqlite) {
    std::vector<std::string> vecTexts = {CCacheTable().m_stSetQueryTime.strSQL}; // built with the table
    for (const CTableSchema *p : std::initializer_list<const CTableSchema *>{&cache, &virus, &version}) {
        vecTexts.insert(vecTexts.end(), {p->m_strCheckSQL, p->m_strCreateSQL, p->m_strDropSQL, p->m_stInsert.strSQL,
                                         p->m_stDelete.strSQL, p->m_stQuery.strSQL});
    }
    std::string strAll;
    for (const std::string &strSQL : vecTexts) {
        EXPECT_EQ(_SQLStmt(strSQL).Prepare(db.m_pDB), SQLITE_OK) << strSQL;
        strAll += strSQL;
    }
    EXPECT_EQ(
        strAll,
        "update CT set QC = QC+1, TS = ? where FPH = ?;"
        "select sql from sqlite_master where type = \"table\" and name = \"CT\";"
        "create table if not exists CT(FPH integer(8) primary key,FAH integer(4) not null,FTV integer(8) not null,"
        "FHMD integer(8) not null,FLMD integer(8) not null,QC integer(4) not null,TS integer(8) not null,"
        "RS integer(4) not null,FFI varchar(6) not null);drop table if exists CT;"
        "replace into CT values(?,?,?,?,?,?,?,?,?);delete from CT where FPH = ?;select * from CT where FPH = ?;"
        "select sql from sqlite_master where type = \"table\" and name = \"VDT\";"
        "create table if not exists VDT(VID integer(4) primary key,VD varchar(64) not null);drop table if exists VDT;"
        "replace into VDT values(?,?);delete from VDT where VID = ?;select * from VDT where VID = ?;"
        "select sql from sqlite_master where type = \"table\" and name = \"VST\";"
        "create table if not exists VST(FV integer(4) primary key,VN integer(4) not null,LDT integer(8) not null);"
        "drop table if exists VST;replace into VST values(?,?,?);delete from VST where FV = ?;"
        "select * from VST where FV = ?;");
    EXPECT_EQ(db.Text("select sql from sqlite_master where name = 'CT_MD5'"), "CREATE INDEX CT_MD5 on CT(FHMD,FLMD)");
}

TEST_F(Tables, SchemaIsKeptWhenItMatchesAndElseDroppedAndMadeAnew) {
    const std::tuple<std::string, std::string, bool> cases[] = {
        {"(FV INTEGER(4) PRIMARY KEY,VN INTEGER(4) NOT NULL,LDT INTEGER(8) NOT NULL)", "(0,1,2)", true},
        {"(FV integer(4) primary key,VN integer(4) not null,LDT integer(8) not null,X)", "(0,1,2,3)", false},
        {"(FV integer(4) primary key,VN integer(4) not null)", "(0,1)", false},
        {"(FV integer(4) primary key, VN integer(4) not null,LDT integer(8) not null)", "(0,1,2)", false}};
    for (const auto &[strStored, strRow, bKept] : cases) {
        CVersionTable table(db.m_pDB);
        EXPECT_TRUE(db.Run("drop table VST; CREATE TABLE VST" + strStored + "; insert into VST values" + strRow));
        EXPECT_EQ(TableCreateCheckRebuild(&table), TARN_OK) << strStored;
        EXPECT_EQ(db.Number("select count(*) from VST"), bKept ? 1 : 0) << strStored;
        _VersionRecord record = {7, 8, 9};
        EXPECT_EQ(table.InsertRecord(&record), 0U) << strStored;
    }
    CVersionTable table(db.m_pDB);
    ASSERT_TRUE(db.Run("drop table VST; create view VST as select 1")); // cannot be dropped as a table
    EXPECT_EQ(TableCreateCheckRebuild(&table), TARN_E_FAIL);
    EXPECT_EQ(table.CheckTableIntegrity(), 1U);
    EXPECT_EQ(RecordedLog::Texts(2).back(),
              "xdatatable: [__implCheckIntegrity]step table failed with error msg = SQL logic error");
}

TEST_F(Tables, BusyDatabaseIsWaitedForAsOftenAsEachOperationSays) {
    const CSecondConnection blocker(install.Database());
    g_pBlocker = &blocker;
    sqlite3_busy_handler(db.m_pDB, OnBusy, nullptr);
    std::set<int16_t> setIds = {5};
    std::vector<_CacheRecordEx *> vecRecords;
    int iIndex = 0;
    const struct {
        const char *pszName;
        std::function<int64_t()> run;
        int nTimeouts, nAttempts;
        int64_t liBusy, liReleased; // answers when every attempt met the lock, and when the last one did not
    } cases[] = {{"schema", [&] { return __implExecDDL(db.m_pDB, "create table X(A);"); }, 1, 2, 1, 0},
                 {"expire", [&] { return cache.DeleteExpireRecords(1, 1, nullptr); }, 4, 5, SQLITE_BUSY, 0},
                 {"md5", [&] { return cache.DeleteRecordByMD5(1, 1); }, 1, 2, 0, 1},
                 {"md5 query", [&] { return cache.QueryFilePathHashByMD5(1, 1, vecRecords); }, 0, 1, 0, 0},
                 {"description", [&] { return virus.GetIndexByVirusDesc("new", &iIndex); }, 1, 2, 0, 1},
                 {"engines", [&] { return cache.BatchDeleteRecordsByEngineIds(setIds); }, 0, 2, 0, 1},
                 {"all", [&] { return cache.DeleteAllRecords(); }, 0, 1, 0, 0}};
    for (const auto &entry : cases) {
        for (const bool bRelease : {false, true}) {
            ASSERT_TRUE(blocker.Run("begin exclusive")) << entry.pszName;
            g_nBusyTimeouts = g_nBusyAttempts = 0;
            g_nReleaseAt = bRelease ? entry.nAttempts - 1 : 0; // one attempt alone has none before it
            EXPECT_EQ(entry.run(), bRelease ? entry.liReleased : entry.liBusy) << entry.pszName << bRelease;
            EXPECT_EQ(g_nBusyTimeouts, entry.nTimeouts) << entry.pszName << bRelease;
            EXPECT_EQ(g_nBusyAttempts, g_nReleaseAt > 0 ? g_nReleaseAt : entry.nAttempts) << entry.pszName << bRelease;
            (void)blocker.Run("rollback"); // fails after a release
        }
    }
}

TEST_F(Tables, CacheRecordGoesIntoItsColumnsAndBack) {
    _CacheRecordEx record = {{INT64_MIN, -1, 0x7766554433221100, -2, INT64_MAX, 41, 5000000000, 15, "/abcd", {}, 0},
                             "behind"};
    ASSERT_EQ(cache.InsertRecord(&record), 0U);
    EXPECT_EQ(db.Text("select FPH||' '||FAH||' '||FTV||' '||FHMD||' '||FLMD||' '||QC||' '||TS||' '||RS||' '||"
                      "typeof(FFI)||' '||FFI from CT"),
              "-9223372036854775808 -1 9223372036854775807 8603657889541918976 -2 41 5000000000 15 blob /abcd");
    _CacheRecordEx read;
    std::memset(&read, 0x5A, sizeof read);
    const _CacheRecordEx before = read;
    EXPECT_EQ(cache.QueryRecord(&read), kNoRow);
    EXPECT_EQ(std::memcmp(&read, &before, sizeof read), 0);
    read.liFilePathHash = INT64_MIN;
    EXPECT_EQ(cache.QueryRecord(&read), 0U);
    read.liFilePathHash = 5;
    EXPECT_EQ(cache.InsertRecord(&read), 0U);
    EXPECT_EQ(db.Number("select count(*) from (select distinct FAH,FTV,FHMD,FLMD,QC,TS,RS,FFI from CT)"), 1);
    _CacheRecord replacement = {5, 1, 2, 3, 4, 0, 6, 7, "", {}, 0};
    EXPECT_EQ((Results{cache.InsertRecord(&replacement), cache.QueryRecord(&read)}), (Results{0, 0}));
    EXPECT_STREQ(read.szFilePathIndex, "");
    EXPECT_EQ((Results{cache.DeleteRecord(&read), cache.DeleteRecord(&read)}), (Results{0, 0})); // absent: no failure
    ASSERT_TRUE(db.Run("insert into CT values(5,2,3,4,5,6,7,8,'/abcdefghijklmnopqrstuvwxyz')")); // by someone else
    EXPECT_EQ(cache.QueryRecord(&read), 0U);
    EXPECT_STREQ(read.szFilePathIndex, "/abcd");
    EXPECT_EQ(read.szFilePath[0], 0x5A);
}

TEST_F(Tables, VersionIsReadBackAndReplaced) {
    _VersionRecord first = {0, 1, 2}, second = {0, INT32_MIN, 5000000000}, read = {};
    EXPECT_EQ(version.InsertRecord(&first), 0U);
    EXPECT_EQ(version.InsertRecord(&second), 0U);
    EXPECT_EQ(version.QueryRecord(&read), 0U);
    EXPECT_EQ((Results{read.iVersionNo, read.liCreateTime}), (Results{INT32_MIN, 5000000000}));
}

// A lock that lasts through the creation and ends before a drop could be tried must not cost the rows.
TEST_F(Tables, ADatabaseLockedAtTheStartKeepsItsRows) {
    ASSERT_TRUE(db.Run("insert into CT values(1,0,0,0,0,6,7,0,'')"));
    const CSecondConnection blocker(install.Database());
    const CSecondConnection starting(install.Database());
    g_pBlocker = &blocker;
    ASSERT_TRUE(blocker.Run("begin exclusive"));
    sqlite3_busy_handler(starting.m_pDB, OnBusy, nullptr);
    g_nReleaseAt = (g_nBusyAttempts = 0) + 3; // two are the creation's
    CCacheTable table(starting.m_pDB);
    EXPECT_EQ(TableCreateCheckRebuild(&table), TARN_E_FAIL);
    g_nReleaseAt = 0;
    (void)blocker.Run("rollback");
    EXPECT_EQ(db.Number("select count(*) from CT"), 1);
}

TEST_F(Tables, AFailedCreationLeavesNoStatement) {
    const CSecondConnection other(install.Database());
    CCacheTable table(other.m_pDB);
    table.m_stDelete.strSQL = "no statement";
    EXPECT_EQ(table.CreateTable(), static_cast<uint32_t>(SQLITE_ERROR));
    EXPECT_EQ(sqlite3_next_stmt(other.m_pDB, nullptr), nullptr);
}

TEST_F(Tables, AStatementStaysInertAfterItsFirstFailure) {
    CStatement unprepared(db.m_pDB, "select X from CT");
    CStatement unbound(db.m_pDB, "replace into VST values(1,2,?)");
    unbound.Bind(2, 1);
    unbound.Bind(1, 1);
    EXPECT_EQ((Results{unprepared.RetryWhileBusy(4), unprepared.FetchRow()}), (Results{SQLITE_ERROR, SQLITE_ERROR}));
    EXPECT_EQ(unbound.Run(), static_cast<uint32_t>(SQLITE_RANGE));
    EXPECT_STREQ(unprepared.ErrorText(), "no such column: X"); // its own, whatever came later
    EXPECT_EQ(db.Number("select count(*) from VST"), 0);
    CStatement done(db.m_pDB, "insert into VST values(1,2,3)");
    EXPECT_EQ((Results{done.Run(), done.Run()}), (Results{0, 0})); // not run again: the key would be taken
}
