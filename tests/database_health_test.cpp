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
    std::string strTables = "begin;";
    for (int i = 0; i < 3000; ++i) {
        strTables += "create table T" + std::to_string(i) + "(a);";
    }
    const std::string strPage = m_strGood.substr(0, 4096);
    const std::pair<std::string, std::string> cases[] = {
        {std::string(8192, '?'), ""}, // no database
        {strPage, ""},                // cut
        {strPage + std::string(m_strGood.size() - 4096, '\0'), ""},
        {m_strGood, "create trigger T after insert on CT begin delete from VDT; end"},
        {m_strGood, "drop table VST; create view VST as select 1, 2, 3"},
        {m_strGood, "alter table CT add column X"},
        {m_strGood, "drop table VDT"}, // of which records have names
        {m_strGood, strTables + "commit"},
    };
    for (const auto &[strContent, strSQL] : cases) {
        SCOPED_TRACE(strSQL.substr(0, 60) + std::to_string(strContent.size()));
        Reset();
        Put(strContent);
        ASSERT_TRUE(strSQL.empty() || Run(strSQL));
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
    const std::string strPath = m_install.Database();
    const std::string strJournal = strPath + "-journal";
    const std::string strOther = m_install.Path("other");
    const std::pair<std::string, std::function<void()>> cases[] = {
        {"is a symbolic link", [&] { fs::rename(strPath, strOther), fs::create_symlink(strOther, strPath); }},
        {"left as it is: it is not a regular file", [&] { fs::remove(strPath), (void)mkfifo(strPath.c_str(), 0600); }},
        {"journal is not opened: it is not a regular file", [&] { (void)mkfifo(strJournal.c_str(), 0600); }},
        {"journal is not opened: it is not a regular file",
         [&] { fs::remove(strJournal), fs::create_directory(strJournal); }},
        {"belongs to another user", [&] { [[maybe_unused]] const int iError = chown(strPath.c_str(), 12345, 0); }},
        {"several names", [&] { fs::remove(strOther), fs::create_hard_link(strPath, strOther); }},
    };
    for (const auto &[strReason, obstruct] : cases) {
        if (geteuid() != 0 && strReason == "belongs to another user") {
            continue; // only root can give a file away
        }
        SCOPED_TRACE(strReason);
        Reset();
        obstruct();
        EXPECT_EQ(Start(), TARN_E_FAIL);
        EXPECT_GT(Warnings(strReason), 0);
        EXPECT_FALSE(Exists(Damaged()));
    }
    Configure("");
    EXPECT_EQ(Start(), TARN_OK); // without the key it would otherwise be deleted
    EXPECT_EQ(Lookup(m_strFile), TARN_OK);
}

TEST_F(DatabaseHealth, WhatHappensToARunningCacheHealsInItsWriter) {
    const std::string strPath = m_install.Database();
    const std::function<void()> cases[] = {[&] { fs::remove(strPath); }, [&] { fs::resize_file(strPath, 8192); },
                                           [&] { fs::resize_file(strPath, 0); },
                                           [&] { fs::remove(strPath), Put(m_strGood); }};
    for (const auto &damage : cases) {
        const bool bStays = &damage == std::end(cases) - 1; // what was stored
        SCOPED_TRACE(&damage - cases);
        Reset();
        ASSERT_EQ(Start(), TARN_OK);
        ASSERT_EQ(Lookup(m_strFile), TARN_OK);
        const std::string strOther = File("other");
        ASSERT_EQ(Add(strOther, Verdict(1, 1, "Other.Virus")), TARN_OK); // its index counts in the former table
        damage();
        m_pAgent->RunWritePass(false);
        EXPECT_EQ(Lookup(m_strFile), bStays ? TARN_OK : TARN_NOT_CACHED);
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
