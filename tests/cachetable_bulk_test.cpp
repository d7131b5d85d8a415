// The operations of the cache table that act on many rows.
#include "tables/cachetable.h"

#include "tests/support/install.h"
#include "tests/support/services.h"

#include <gtest/gtest.h>
#include <memory>
#include <sqlite3.h>

using Results = std::vector<int64_t>; // a result, and what a call left behind

class BulkOperations : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(m_table.CreateTable(), 0U);
        RecordedLog::SetSource("cachetable");
        RecordedLog::SetDebug(true);
    }
    bool Insert(const std::string &strRows) const { return m_db.Run("insert into CT " + strRows); }
    std::string Keys() const { return m_db.Text("select group_concat(FPH) from (select FPH from CT order by FPH)"); }

    const CSecondConnection m_db = CSecondConnection(":memory:");
    CCacheTable m_table = CCacheTable(m_db.m_pDB);
};

TEST_F(BulkOperations, ExcessStartsBeyondAMillionRows) {
    ASSERT_TRUE(Insert("with recursive N(I) as (values(1) union all select I+1 from N where I<999999) "
                       "select I,0,0,0,0,0,0,0,'' from N"));
    int iDeleted = -1;
    EXPECT_EQ((Results{m_table.DeleteExcessRecords(30, &iDeleted), iDeleted}), (Results{0, -1}));
    EXPECT_TRUE(RecordedLog::Contains("[DeleteExcessRecords]db count do not over max storage count."));
    ASSERT_TRUE(Insert("values(0,0,0,0,0,0,0,0,'')"));
    EXPECT_EQ((Results{m_table.DeleteExcessRecords(0, &iDeleted), iDeleted}), (Results{0, 0}));
    ASSERT_TRUE(Insert("values(-1,0,0,0,0,0,0,0,'')"));
    EXPECT_NE(m_table.DeleteExcessRecords(1 << 30, &iDeleted), 0U); // a limit that does not fit deletes nothing
}

TEST_F(BulkOperations, EnginesAreBits32To47WhateverTheOthersAre) {
    const std::tuple<std::set<int16_t>, const char *, const char *> cases[] = {
        {{}, "()", "1,2,3,4,5,6"},
        {{5}, "(5)", "3,4,5,6"},
        {{12, 7, 0}, "(0,7,12)", "1,2,5,6"},
        {{-3, INT16_MIN, INT16_MAX}, "(-32768,-3,32767)", "1,2,3,4,5,6"}}; // never a negative one
    for (auto [setEngines, pszText, pszLeft] : cases) {
        ASSERT_TRUE(m_db.Run("delete from CT"));
        for (const int64_t liVerdict : {PackVerdict(0, 5, 0), PackVerdict(~0U, 5, -1), PackVerdict(5, 7, 5),
                                        PackVerdict(5, 0, 5), PackVerdict(0, -3, 0), PackVerdict(0, 0x105, 5)}) {
            ASSERT_TRUE(Insert("select count(*)+1,0," + std::to_string(liVerdict) + ",0,0,0,0,0,'' from CT"));
        }
        EXPECT_EQ(m_table.EngineSetToStr(setEngines), pszText);
        EXPECT_EQ(m_table.BatchDeleteRecordsByEngineIds(setEngines), 1) << pszText;
        EXPECT_EQ(Keys(), pszLeft) << pszText;
    }
}

TEST_F(BulkOperations, Md5IsBothHalvesForQueryAndDeletion) {
    ASSERT_TRUE(Insert("values(11,-2,3,-4,5,6,7,8,'/abcd'),(12,0,0,5,-4,0,0,0,''),(9,1,0,-4,5,0,0,0,'')"));
    _CacheRecordEx before = {};
    std::vector<_CacheRecordEx *> vecRecords = {&before};
    EXPECT_EQ(m_table.QueryFilePathHashByMD5(1, 2, vecRecords), 1); // held by no row
    EXPECT_EQ(m_table.QueryFilePathHashByMD5(-4, 5, vecRecords), 1);
    ASSERT_EQ(vecRecords.size(), 3U);
    EXPECT_EQ(vecRecords[0], &before);
    const std::unique_ptr<_CacheRecordEx> pFirst(vecRecords[1]), pSecond(vecRecords[2]);
    EXPECT_EQ(pSecond->liFilePathHash, 9);
    EXPECT_STREQ(pFirst->szFilePath, "");
    int64_t liCount = -1;
    EXPECT_EQ((Results{m_table.CountRecordsByMD5(-4, 5, &liCount), liCount}), (Results{0, 2}));
    EXPECT_EQ((Results{m_table.DeleteRecordByMD5(-4, 5), m_table.DeleteRecordByMD5(-4, 5)}), (Results{1, 1}));
    EXPECT_EQ(Keys(), "12");
    EXPECT_EQ(m_table.InsertRecord(pFirst.get()), 0U); // whole: it can be put back
    EXPECT_EQ(m_db.Text("select FAH||FTV||FHMD||FLMD||QC||TS||RS||FFI from CT where FPH=11"), "-23-45678/abcd");
}

TEST_F(BulkOperations, FailedPreparationIsAnsweredByEachInItsOwnWay) {
    m_table.m_strTableName = "Lost";
    std::set<int16_t> setIds = {5};
    std::vector<_CacheRecordEx *> vecRecords;
    int iCount = -1;
    EXPECT_EQ((Results{m_table.QueryRecordsCount(&iCount), iCount}), (Results{SQLITE_ERROR, -1}));
    EXPECT_EQ((Results{m_table.DeleteExpireRecords(1, 1, nullptr), m_table.DeleteExcessRecords(1, nullptr),
                       m_table.DeleteRecordByMD5(1, 1), m_table.BatchDeleteRecordsByEngineIds(setIds),
                       m_table.DeleteAllRecords(), m_table.QueryFilePathHashByMD5(1, 1, vecRecords)}),
              (Results(6)));
    EXPECT_EQ(RecordedLog::Texts(2).size(), 5U); // the failed count is silent
    EXPECT_EQ(RecordedLog::Texts(2).back(),
              "[QueryFilePathHashByMD5]sqlite prepare v2 failed with error code = no such table: Lost");
}
