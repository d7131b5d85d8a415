// The table framework, and the operations of the tables on single records.
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

// A table that answers with values: -99 and "?" stand for a failure that left the output.
class CTestVirusTable : public CVirusTable {
  public:
    using CVirusTable::CVirusTable;
    int Index(const std::string &strDesc) {
        int iIndex = -99;
        const int iResult = GetIndexByVirusDesc(strDesc.c_str(), &iIndex);
        EXPECT_EQ(iResult, iIndex == -99 ? 0 : 1) << strDesc;
        return iIndex;
    }
    std::string Desc(int iIndex, unsigned int nSize = TARN_VIRUS_DESC_SIZE) {
        char szDesc[TARN_VIRUS_DESC_SIZE] = "?";
        const int iResult = GetVirusDescByIndex(iIndex, szDesc, nSize);
        EXPECT_EQ(iResult, std::strcmp(szDesc, "?") == 0 ? 0 : 1) << iIndex;
        return szDesc;
    }
};

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
    CTestVirusTable virus = CTestVirusTable(db.m_pDB);
    CVersionTable version = CVersionTable(db.m_pDB);
};

} // namespace

extern "C" int sqlite3_busy_timeout(sqlite3 *, int ms) {
    EXPECT_EQ(ms, 1500);
    ++g_nBusyTimeouts;
    return SQLITE_OK;
}

TEST_F(Tables, TheStoredSchemaIsTheOneThatInstalledDatabasesHave) {
    EXPECT_EQ(db.Text("select group_concat(sql, ';') from sqlite_master where sql is not null"),
              "CREATE TABLE CT(FPH integer(8) primary key,FAH integer(4) not null,FTV integer(8) not null,"
              "FHMD integer(8) not null,FLMD integer(8) not null,QC integer(4) not null,TS integer(8) not null,"
              "RS integer(4) not null,FFI varchar(6) not null);CREATE INDEX CT_MD5 on CT(FHMD,FLMD);"
              "CREATE TABLE VDT(VID integer(4) primary key,VD varchar(64) not null);"
              "CREATE TABLE VST(FV integer(4) primary key,VN integer(4) not null,LDT integer(8) not null)");
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
}

TEST_F(Tables, BusyDatabaseIsWaitedForAsOftenAsEachOperationSaysAndKeepsItsRows) {
    ASSERT_TRUE(db.Run("insert into CT values(1,0,0,0,0,6,7,0,'')"));
    const CSecondConnection blocker(install.Database());
    g_pBlocker = &blocker;
    sqlite3_busy_handler(db.m_pDB, OnBusy, nullptr);
    // A lock that lasts through the creation and ends before a drop could be tried must not cost the rows.
    ASSERT_TRUE(blocker.Run("begin exclusive"));
    g_nReleaseAt = (g_nBusyAttempts = 0) + 3; // two are the creation's
    CCacheTable starting(db.m_pDB);
    EXPECT_EQ(TableCreateCheckRebuild(&starting), TARN_E_FAIL);
    (void)blocker.Run("rollback");
    EXPECT_EQ(db.Number("select count(*) from CT"), 1);
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
    EXPECT_EQ((Results{cache.DeleteRecord(&read), cache.DeleteRecord(&read)}), (Results{0, 0})); // absent: no failure
    ASSERT_TRUE(db.Run("insert into CT values(5,2,3,4,5,6,7,8,'/abcdefghijklmnopqrstuvwxyz')")); // by someone else
    EXPECT_EQ(cache.QueryRecord(&read), 0U);
    EXPECT_STREQ(read.szFilePathIndex, "/abcd");
    EXPECT_EQ(read.szFilePath[0], 0x5A);
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
}

TEST_F(Tables, NumbersDescriptionsInOrderOfArrivalAndAsksTheDatabaseOnce) {
    ASSERT_TRUE(db.Run("insert into VDT values(0,'Win.Test.A')"));
    EXPECT_EQ(virus.Index("win.test.a"), 1); // case counts
    EXPECT_EQ(virus.Index("a'b; drop table VDT; --"), 2);
    EXPECT_EQ(virus.Desc(0), "Win.Test.A");
    ASSERT_TRUE(db.Run("delete from VDT"));
    EXPECT_EQ(virus.Index("Win.Test.A"), 0); // from the map
    EXPECT_EQ(virus.Desc(2), "a'b; drop table VDT; --");
    EXPECT_EQ(db.Number("select count(*) from VDT"), 0);
}

TEST_F(Tables, ReusesAnIndexAfterADeletion) {
    EXPECT_EQ((Results{virus.Index("A"), virus.Index("B"), virus.Index("C")}), (Results{0, 1, 2}));
    _VirusRecord record = {0, ""};
    ASSERT_EQ(virus.DeleteRecord(&record), 0U);
    EXPECT_EQ(virus.Index("D"), 2); // the row count
    EXPECT_EQ(virus.Desc(2), "C");  // what was known stays known
    CTestVirusTable later(db.m_pDB);
    ASSERT_EQ(later.CreateTable(), 0U);
    ASSERT_TRUE(db.Run("insert into VDT values(4,'')"));
    EXPECT_EQ(later.Desc(2) + later.Desc(0) + later.Desc(4), "D??"); // unknown, and empty
}

TEST_F(Tables, CutsDescriptionsToTheirField) {
    const std::string str63(63, 'x');
    EXPECT_EQ((Results{virus.Index(str63), virus.Index(str63 + "x"), virus.Index(str63 + "yy")}), (Results(3)));
    EXPECT_EQ(db.Text("select VD from VDT"), str63);
    ASSERT_TRUE(db.Run("insert into VDT values(5,'" + str63 + "xxx')")); // not written by this library
    EXPECT_EQ(virus.Desc(5), str63);
    EXPECT_EQ(virus.Desc(0, 5), "xxxx");
    _VirusRecord full; // no NUL within the field
    std::memset(&full, 'y', sizeof full);
    EXPECT_EQ(virus.InsertRecord(&full), 0U);
    EXPECT_EQ(db.Number("select max(length(VD)) from VDT where VD like 'y%'"), 64);
}

// SQLite takes such a text in double quotes for a column, which every row or none would meet.
TEST_F(Tables, NumbersDescriptionsThatAreNamesOfColumns) {
    CTestVirusTable later(db.m_pDB); // its map is as empty as after a restart
    ASSERT_EQ(later.CreateTable(), 0U);
    int iNext = 0;
    for (const char *pszDesc : {"First", "VD", "vd", "VID", "rowid", "OID", "_rowid_", "VDT"}) {
        EXPECT_EQ(virus.Index(pszDesc), iNext) << pszDesc;
        EXPECT_EQ(later.Index(pszDesc), iNext++) << pszDesc;
    }
}
