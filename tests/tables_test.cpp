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

constexpr uint32_t kNoRow = SQLITE_DONE;
int g_nBusyTimeouts = 0;
int g_nReleaseAt = 0; // the blocking transaction ends at this busy time-out; 0: never
const CSecondConnection *g_pBlocker = nullptr;

class Tables : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(TableCreateCheckRebuild(&cache) | TableCreateCheckRebuild(&virus) | TableCreateCheckRebuild(&version),
                  TARN_OK);
        RecordedLog::Clear();
    }
    const CTempInstall install;
    const CSecondConnection db{install.Database()};
    CCacheTable cache{db.m_pDB};
    CVirusTable virus{db.m_pDB};
    CVersionTable version{db.m_pDB};
};

} // namespace

// Waiting takes no time here: what counts is how often an operation asks for it.
extern "C" __attribute__((visibility("default"))) int sqlite3_busy_timeout(sqlite3 *, int ms) {
    EXPECT_EQ(ms, 1500);
    if (++g_nBusyTimeouts == g_nReleaseAt) {
        EXPECT_TRUE(g_pBlocker->Run("rollback"));
    }
    return SQLITE_OK;
}

TEST_F(Tables, StatementTextsAreTheExpectedOnesAndAcceptedBySqlite) {
    std::vector<std::string> vecTexts = {cache.m_stSetQueryTime.strSQL};
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
    const struct {
        std::string strStored, strRow;
        bool bKept;
    } cases[] = {{"(FV INTEGER(4) PRIMARY KEY,VN INTEGER(4) NOT NULL,LDT INTEGER(8) NOT NULL)", "(0,1,2)", true},
                 {"(FV integer(4) primary key,VN integer(4) not null,LDT integer(8) not null,X)", "(0,1,2,3)", false},
                 {"(FV integer(4) primary key,VN integer(4) not null)", "(0,1)", false},
                 {"(FV integer(4) primary key,VN integer(8) not null,LDT integer(8) not null)", "(0,1,2)", false},
                 {"(FV integer(4) primary key, VN integer(4) not null,LDT integer(8) not null)", "(0,1,2)", false}};
    for (const auto &entry : cases) {
        CVersionTable table(db.m_pDB);
        EXPECT_TRUE(
            db.Run("drop table VST; CREATE TABLE VST" + entry.strStored + "; insert into VST values" + entry.strRow));
        EXPECT_EQ(TableCreateCheckRebuild(&table), TARN_OK) << entry.strStored;
        EXPECT_EQ(db.Number("select count(*) from VST"), entry.bKept ? 1 : 0) << entry.strStored;
        _VersionRecord record = {7, 8, 9};
        EXPECT_EQ(table.InsertRecord(&record), 0U) << entry.strStored;
    }
    CVersionTable table(db.m_pDB);
    ASSERT_TRUE(db.Run("drop table VST; create view VST as select 1")); // cannot be dropped as a table
    EXPECT_EQ(TableCreateCheckRebuild(&table), TARN_E_FAIL);
    EXPECT_EQ(table.CheckTableIntegrity(), 1U);
    EXPECT_EQ(RecordedLog::Texts(2).back(), "[__implCheckIntegrity]step table failed with error msg = SQL logic error");
}

TEST_F(Tables, BusyDatabaseIsWaitedForAsOftenAsEachOperationSays) {
    const CSecondConnection blocker(install.Database());
    g_pBlocker = &blocker;
    std::set<int16_t> setIds = {5};
    int iIndex = 0;
    const struct {
        const char *pszName;
        std::function<int64_t()> run;
        int nTimeouts;
        int64_t liBusy, liReleased;
    } cases[] = {{"schema", [&] { return __implExecDDL(db.m_pDB, "create table X(A);"); }, 1, 1, 0},
                 {"expire", [&] { return cache.DeleteExpireRecords(1, 1, nullptr); }, 4, SQLITE_BUSY, 0},
                 {"md5", [&] { return cache.DeleteRecordByMD5(1, 1); }, 1, 0, 1},
                 {"description", [&] { return virus.GetIndexByVirusDesc("new", &iIndex); }, 1, 0, 1},
                 {"engines", [&] { return cache.BatchDeleteRecordsByEngineIds(setIds); }, 0, 0, 0},
                 {"all", [&] { return cache.DeleteAllRecords(); }, 0, 0, 0}};
    for (const auto &entry : cases) {
        for (const bool bRelease : {false, true}) {
            ASSERT_TRUE(blocker.Run("begin exclusive")) << entry.pszName;
            g_nBusyTimeouts = 0;
            g_nReleaseAt = bRelease ? entry.nTimeouts : 0;
            EXPECT_EQ(entry.run(), bRelease ? entry.liReleased : entry.liBusy) << entry.pszName << bRelease;
            EXPECT_EQ(g_nBusyTimeouts, entry.nTimeouts) << entry.pszName << bRelease;
            (void)blocker.Run("rollback"); // fails after a release
        }
    }
}

TEST_F(Tables, CacheRecordGoesIntoItsColumnsAndBack) {
    _CacheRecordEx record = {{INT64_MIN, -1, 0x7766554433221100, -2, INT64_MAX, 41, 5000000000, 15, "/abcd"}, "behind"};
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
    _CacheRecord replacement = {5, 1, 2, 3, 4, 0, 6, 7, ""};
    EXPECT_TRUE(cache.InsertRecord(&replacement) == 0 && cache.QueryRecord(&read) == 0 && read.szFilePathIndex[0] == 0);
    EXPECT_EQ(db.Text("select FAH||FTV||FHMD||FLMD||QC||TS||RS||typeof(FFI)||length(FFI) from CT where FPH = 5"),
              "1423067blob0");
    EXPECT_EQ(cache.DeleteRecord(&read) | cache.DeleteRecord(&read), 0U); // an absent key is no failure
    ASSERT_TRUE(db.Run("insert into CT values(5,2,3,4,5,6,7,8,'/abcdefghijklmnopqrstuvwxyz')")); // by someone else
    EXPECT_EQ(cache.QueryRecord(&read), 0U);
    EXPECT_TRUE(read.szFilePathIndex == std::string("/abcd") && read.szFilePath[0] == 0x5A);
}

TEST_F(Tables, CacheCountsHitsAndRows) {
    ASSERT_TRUE(db.Run("insert into CT values(1,0,0,0,0,6,7,0,''),(2,0,0,0,0,6,7,0,'')"));
    cache.AddRecordQueryCount(2, 99);
    cache.AddRecordQueryCount(3, 99); // absent
    EXPECT_EQ(db.Text("select group_concat(FPH||':'||QC||':'||TS) from CT"), "1:6:7,2:7:99");
    int iCount = -1;
    EXPECT_TRUE(cache.QueryRecordsCount(&iCount) == 0 && cache.ResetAllRecordsQueryCount(3) == 0 && iCount == 2);
    EXPECT_EQ(db.Number("select count(*) from CT where QC = 3"), 2);
    EXPECT_TRUE(cache.DeleteAllRecords() == 1 && db.Number("select count(*) from CT") == 0);
    ASSERT_TRUE(RecordedLog::Lines().empty() && db.Run("drop table CT"));
    EXPECT_TRUE(cache.QueryRecordsCount(&iCount) == SQLITE_ERROR && iCount == 2 && cache.DeleteAllRecords() == 0);
}

TEST_F(Tables, VersionIsReadBackAndReplaced) {
    _VersionRecord record = {0, 77, 78};
    EXPECT_TRUE(version.QueryRecord(&record) == kNoRow && record.iVersionNo == 77 && record.liCreateTime == 78);
    _VersionRecord first = {0, 1, 2}, second = {0, INT32_MIN, 5000000000};
    EXPECT_TRUE(version.InsertRecord(&first) == 0 && version.InsertRecord(&second) == 0);
    EXPECT_TRUE(version.QueryRecord(&record) == 0 && record.iVersionNo == INT32_MIN &&
                record.liCreateTime == 5000000000);
    EXPECT_TRUE(version.DeleteRecord(&record) == 0 && version.QueryRecord(&record) == kNoRow);
}

// A lock that lasts through the creation and ends before a drop could be tried must not cost the rows.
TEST_F(Tables, ADatabaseLockedAtTheStartKeepsItsRows) {
    ASSERT_TRUE(db.Run("insert into CT values(1,0,0,0,0,6,7,0,'')"));
    const CSecondConnection blocker(install.Database());
    const CSecondConnection starting(install.Database());
    g_pBlocker = &blocker;
    ASSERT_TRUE(blocker.Run("begin exclusive"));
    g_nReleaseAt = (g_nBusyTimeouts = 0) + 2;
    CCacheTable table(starting.m_pDB);
    EXPECT_EQ(TableCreateCheckRebuild(&table), TARN_E_FAIL);
    g_nReleaseAt = 0;
    (void)blocker.Run("rollback");
    EXPECT_EQ(db.Number("select count(*) from CT"), 1);
}

// Without a connection both conventions, 0 for success and 1 for success, answer 1.
TEST_F(Tables, NoConnectionIsLoggedAndAnsweredWithOne) {
    EXPECT_TRUE(CCacheTable().InsertRecord(nullptr) == 1 && CCacheTable().DeleteExpireRecords(1, 1, nullptr) == 1 &&
                CVirusTable().QueryRecord(nullptr) == 1 && CCacheTable().DeleteAllRecords() == 1);
    EXPECT_TRUE(RecordedLog::Texts(2).size() == 4 && RecordedLog::Contains("[DeleteAllRecords]m_pDB is null."));
}
