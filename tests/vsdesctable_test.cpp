#include "tables/vsdesctable.h"

#include "tests/support/install.h"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

using Numbers = std::vector<int>;

// A table that answers with values: -99 and "?" stand for a failure that left the output.
class CTestTable : public CVirusTable {
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

class VirusTable : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(m_table.CreateTable(), 0U); }
    const CSecondConnection m_db = CSecondConnection(":memory:");
    CTestTable m_table = CTestTable(m_db.m_pDB);
};

TEST_F(VirusTable, NumbersDescriptionsInOrderOfArrivalAndAsksTheDatabaseOnce) {
    ASSERT_TRUE(m_db.Run("insert into VDT values(0,'Win.Test.A')"));
    EXPECT_EQ(m_table.Index("win.test.a"), 1); // case counts
    EXPECT_EQ(m_table.Index("a'b; drop table VDT; --"), 2);
    EXPECT_EQ(m_table.Desc(0), "Win.Test.A");
    ASSERT_TRUE(m_db.Run("delete from VDT"));
    EXPECT_EQ(m_table.Index("Win.Test.A"), 0); // from the map
    EXPECT_EQ(m_table.Desc(2), "a'b; drop table VDT; --");
    EXPECT_EQ(m_db.Number("select count(*) from VDT"), 0);
}

TEST_F(VirusTable, ReusesAnIndexAfterADeletion) {
    EXPECT_EQ((Numbers{m_table.Index("A"), m_table.Index("B"), m_table.Index("C")}), (Numbers{0, 1, 2}));
    _VirusRecord record = {0, ""};
    ASSERT_EQ(m_table.DeleteRecord(&record), 0U);
    EXPECT_EQ(m_table.Index("D"), 2); // the row count
    EXPECT_EQ(m_table.Desc(2), "C");  // what was known stays known
    CTestTable later(m_db.m_pDB);
    ASSERT_EQ(later.CreateTable(), 0U);
    ASSERT_TRUE(m_db.Run("insert into VDT values(4,'')"));
    EXPECT_EQ(later.Desc(2) + later.Desc(0) + later.Desc(4), "D??"); // unknown, and empty
}

TEST_F(VirusTable, CutsDescriptionsToTheirField) {
    const std::string str63(63, 'x');
    EXPECT_EQ((Numbers{m_table.Index(str63), m_table.Index(str63 + "x"), m_table.Index(str63 + "yy")}), (Numbers(3)));
    EXPECT_EQ(m_db.Text("select VD from VDT"), str63);
    int iIndex = -1;
    std::map<int, std::string> map;
    EXPECT_EQ(m_table.LoadRecords(&map, (str63 + "z").c_str(), &iIndex), 0U);
    EXPECT_EQ(map[iIndex], str63);
    EXPECT_EQ(m_db.Number("select count(*) from VDT"), 1);
    ASSERT_TRUE(m_db.Run("insert into VDT values(5,'" + str63 + "xxx')")); // not written by this library
    EXPECT_EQ(m_table.Desc(5), str63);
    EXPECT_EQ(m_table.Desc(0, 5), "xxxx");
    _VirusRecord full; // no NUL within the field
    std::memset(&full, 'y', sizeof full);
    EXPECT_EQ(m_table.InsertRecord(&full), 0U);
    EXPECT_EQ(m_db.Number("select max(length(VD)) from VDT where VD like 'y%'"), 64);
}

// SQLite takes such a text in double quotes for a column, which every row or none would meet.
TEST_F(VirusTable, NumbersDescriptionsThatAreNamesOfColumns) {
    CTestTable later(m_db.m_pDB); // its map is as empty as after a restart
    ASSERT_EQ(later.CreateTable(), 0U);
    int iNext = 0;
    for (const char *pszDesc : {"First", "VD", "vd", "VID", "rowid", "OID", "_rowid_", "VDT"}) {
        EXPECT_EQ(m_table.Index(pszDesc), iNext) << pszDesc;
        EXPECT_EQ(later.Index(pszDesc), iNext++) << pszDesc;
    }
}
