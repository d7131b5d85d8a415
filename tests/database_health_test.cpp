// A database that cannot be used: what is left alone, what is moved aside, and what the cache does meanwhile.
#include "tests/agent_fixture.h"

namespace fs = std::filesystem;

class DatabaseHealth : public CAgentTest {
  protected:
    DatabaseHealth() {
        Configure("protect=1\nexpiretime=4102444800\n");
        EXPECT_EQ(Start(), TARN_OK);
        Write(m_strFile, Verdict(1, 1, "Some.Virus"));
        EXPECT_EQ(Stop(), TARN_OK);
        m_strGood = ReadWholeFile(m_install.Database());
        RecordedLog::Clear();
    }
    void Put(const std::string &strContent) { m_install.WriteFile("engine/cache/morcache.db", strContent); }
    static auto Warnings(const std::string &strPart) {
        const Texts vecTexts = RecordedLog::Texts(2);
        return std::count_if(vecTexts.begin(), vecTexts.end(),
                             [&](const std::string &strText) { return strText.find(strPart) != std::string::npos; });
    }
    std::string Damaged() const { return m_install.Database("morcache.db.damaged"); }
    void Reset() {
        (void)Stop();
        for (const char *pszName : {"morcache.db", "morcache.db-journal", "morcache.db.damaged"}) {
            fs::remove_all(m_install.Database(pszName));
        }
        Put(m_strGood);
        RecordedLog::Clear();
    }

    const std::string m_strFile = File("file");
    std::string m_strGood;
};

TEST_F(DatabaseHealth, WhatIsProvenDamagedOrForeignIsMovedAsideOnce) {
    const struct {
        const char *pszCause;
        std::function<void()> damage;
    } cases[] = {
        {"no database", [this] { Put(std::string(8192, '?')); }},
        {"cut", [this] { Put(m_strGood.substr(0, 4096)); }},
        {"a page of zeros", [this] { Put(m_strGood.substr(0, 4096) + std::string(m_strGood.size() - 4096, '\0')); }},
        {"a trigger", [this] { Run("create trigger T after insert on CT begin delete from VDT; end"); }},
        {"a view", [this] { Run("drop table VST; create view VST as select 1, 2, 3"); }},
        {"another shape", [this] { Run("alter table CT add column X"); }},
        {"names without a table", [this] { Run("drop table VDT"); }},
        {"many tables",
         [this] {
             std::string strTables = "begin;";
             for (int i = 0; i < 3000; ++i) {
                 strTables += "create table T" + std::to_string(i) + "(a);";
             }
             Run(strTables + "commit");
         }},
    };
    for (const auto &testCase : cases) {
        SCOPED_TRACE(testCase.pszCause);
        Reset();
        testCase.damage();
        m_install.WriteFile("engine/cache/morcache.db.damaged", "an earlier one");
        const std::string strBefore = ReadWholeFile(m_install.Database());
        ASSERT_EQ(Start(), TARN_OK);
        EXPECT_EQ(ReadWholeFile(Damaged()), strBefore);
        EXPECT_EQ(Warnings("moved to"), 1);
        EXPECT_EQ(Lookup(m_strFile), TARN_NOT_CACHED);
        Write(m_strFile);
        EXPECT_EQ(Lookup(m_strFile), TARN_OK);
        ASSERT_EQ(Start(), TARN_OK);
        EXPECT_EQ(Lookup(m_strFile), TARN_OK);
        EXPECT_EQ(Warnings("moved to"), 1);
    }
}

TEST_F(DatabaseHealth, WhatCannotBeOpenedIsLeftAloneAndNamed) {
    const struct {
        std::string strReason;
        std::function<void(const std::string &)> obstruct;
    } cases[] = {
        {"is a symbolic link",
         [this](const std::string &s) {
             fs::rename(s, File("x"));
             fs::create_symlink(m_install.Path("x"), s);
         }},
        {"left as it is: it is not a regular file",
         [](const std::string &s) {
             fs::remove(s);
             ASSERT_EQ(mkfifo(s.c_str(), 0600), 0);
         }},
        {"morcache.db-journal is not opened: it is not a regular file",
         [](const std::string &s) { ASSERT_EQ(mkfifo((s + "-journal").c_str(), 0600), 0); }},
        {"morcache.db-journal is not opened: it is not a regular file",
         [](const std::string &s) { fs::create_directory(s + "-journal"); }},
        {"several names", [this](const std::string &s) { fs::create_hard_link(s, m_install.Path("y")); }},
        {"belongs to another user", [](const std::string &s) { ASSERT_EQ(chown(s.c_str(), 12345, 0), 0); }},
    };
    for (const auto &testCase : cases) {
        SCOPED_TRACE(testCase.strReason);
        Reset();
        testCase.obstruct(m_install.Database());
        EXPECT_EQ(Start(), TARN_E_FAIL);
        EXPECT_GT(Warnings(testCase.strReason), 0);
        EXPECT_FALSE(Exists(Damaged()));
    }
}

TEST_F(DatabaseHealth, WhatHappensToARunningCacheHealsInItsWriter) {
    const struct {
        const char *pszCause;
        std::function<void(const std::string &)> damage;
        bool bStays = false; // what was stored
    } cases[] = {
        {"removed", [](const std::string &s) { fs::remove(s); }},
        {"cut", [](const std::string &s) { fs::resize_file(s, 8192); }},
        {"emptied", [](const std::string &s) { fs::resize_file(s, 0); }},
        {"replaced by its copy",
         [this](const std::string &s) {
             fs::remove(s);
             Put(m_strGood);
         },
         true},
    };
    for (const auto &testCase : cases) {
        SCOPED_TRACE(testCase.pszCause);
        Reset();
        ASSERT_EQ(Start(), TARN_OK);
        ASSERT_EQ(Lookup(m_strFile), TARN_OK);
        const std::string strOther = File("other");
        ASSERT_EQ(Add(strOther, Verdict(1, 1, "Other.Virus")), TARN_OK); // its index counts in the former table
        testCase.damage(m_install.Database());
        m_pAgent->RunWritePass(false);
        EXPECT_EQ(Lookup(m_strFile), testCase.bStays ? TARN_OK : TARN_NOT_CACHED);
        Write(m_strFile, Verdict(1, 1, "New.Virus"));
        EXPECT_EQ(Lookup(m_strFile), TARN_OK);
        EXPECT_EQ(Lookup(strOther), TARN_NOT_CACHED);
    }
}

TEST_F(DatabaseHealth, AnEndThatWasNoneIsFollowedByACheckOfTheWhole) {
    const size_t nPage = std::stoul("0" + Query("select rootpage from sqlite_master where name = 'CT_MD5'"));
    const std::string strMark = m_install.Database("morcache.db.open");
    ASSERT_GT(nPage, 1U);
    fs::permissions(m_install.Database(), fs::perms{0644});
    fs::permissions(m_install.Path("engine/cache"), fs::perms{0777});
    Put(m_strGood.replace((nPage - 1) * 4096, 4096, 4096, '\0'));
    for (const bool bClean : {true, false}) {
        bClean ? "" : File(strMark);
        ASSERT_EQ(Start(), TARN_OK);
        EXPECT_TRUE(Exists(strMark));
        EXPECT_EQ(StatusOf(m_install.Database()).st_mode & 0777U, 0600U);
        EXPECT_EQ(Warnings("moved to"), bClean ? 0 : 1);
        EXPECT_EQ(Stop(), TARN_OK);
        EXPECT_FALSE(Exists(strMark));
    }
    EXPECT_EQ(RecordedLog::Texts(2).size(), 3U); // and each start names the folder
}
