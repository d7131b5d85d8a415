// What an unprivileged user who has read the sources could try. Each attack first works without the key "protect" and
// without the bracket of the scan ("Unprotected"), so that its case can fail, and fails with them ("Protected").
// Attack 10, an allocation that fails within the engine, is the program's: test_nothing_is_clean_once_memory_ran_out in
// tool_scan_test.py. What tries to get round the bracket itself is in scan_bracket_test.cpp.
#include "tests/attacks_fixture.h"

#include <csignal>
#include <sys/wait.h>

namespace fs = std::filesystem;

INSTANTIATE_TEST_SUITE_P(Cache, Attacks, testing::Bool(), NameOfParameter);

TEST_P(Attacks, ASizeChosenSoThatTheAttributeHashStays) { // 1
    Remember(m_strFile);
    struct stat malware = StatusOf(m_strFile);
    const uint32_t ulWanted = AttrHash(malware.st_size, malware.st_ctim.tv_sec);
    malware.st_ctim.tv_sec += 60;
    EXPECT_EQ(Lookup(m_strFile, malware), TARN_NOT_CACHED);
    malware.st_size = ForgeSize(ulWanted, malware.st_ctim.tv_sec);
    EXPECT_EQ(Lookup(m_strFile, malware), Fooled());
}

TEST_P(Attacks, AFolderChosenSoThatThePathHashIsAnothersFile) { // 2, 3
    std::string strFolder;
    for (int i = 0; FolderCrc(strFolder) != FolderCrc(m_install.Path("")); ++i) {
        strFolder = m_install.Path(std::to_string(i) + "/");
    }
    fs::create_directory(strFolder);
    m_install.WriteFile(strFolder + "file", "malware");
    Remember(m_strFile);
    const struct stat known = StatusOf(m_strFile);
    struct stat malware = StatusOf(strFolder + "file");
    malware.st_ctim.tv_sec = known.st_ctim.tv_sec;
    EXPECT_EQ(Lookup(strFolder + "file", malware), Fooled()) << "made in one second";
    malware.st_ctim.tv_sec += 3600;
    malware.st_size = ForgeSize(AttrHash(known.st_size, known.st_ctim.tv_sec), malware.st_ctim.tv_sec);
    EXPECT_EQ(Lookup(strFolder + "file", malware), Fooled()) << "forged size";
    EXPECT_EQ(Lookup(m_strFile), TARN_OK);
}

TEST_P(Attacks, AnotherFileOfTheSameSizeAndSecondInItsPlace) { // 6
    Remember(m_strFile);
    const std::pair<const char *, void (*)(struct stat &)> differences[] = {
        {"file", [](struct stat &status) { ++status.st_ino; }},
        {"part of the second", [](struct stat &status) { status.st_ctim.tv_nsec ^= 1; }},
        {"device", [](struct stat &status) { status.st_dev ^= 1; }}, // not the one that the path leads to
    };
    for (const auto &[pszName, change] : differences) {
        struct stat other = StatusOf(m_strFile);
        change(other);
        EXPECT_EQ(Lookup(m_strFile, other), Fooled()) << pszName;
    }
    EXPECT_EQ(Lookup(m_strFile), TARN_OK);
    g_ulFileSystem = Fuse; // made by him, with the numbers of the true one
    Restart();
    EXPECT_EQ(Lookup(m_strFile), Fooled()) << "file system";
}

TEST_P(Attacks, AVerdictChangedInTheDatabaseByHand) { // 17
    Remember(m_strFile, Verdict(1, 1, "Some.Virus"));
    const CSecondConnection other(m_install.Database());
    for (const char *pszChange : {"FTV = FTV | (-1 << 48)", "FTV = FTV + 8", "RS = RS + 1", "FHMD = 1", "FLMD = 1"}) {
        ASSERT_TRUE(WaitFor([&] { return other.Run("create table B as select * from CT"); })) << pszChange;
        ASSERT_TRUE(other.Run(std::string("update CT set ") + pszChange)) << pszChange;
        EXPECT_EQ(Lookup(m_strFile), Fooled()) << pszChange;
        ASSERT_TRUE(other.Run("replace into CT select * from B; drop table B")) << pszChange;
        EXPECT_EQ(Lookup(m_strFile), TARN_OK) << pszChange;
    }
    ASSERT_TRUE(other.Run("update VDT set VD = 'Harmless'"));
    Restart(); // descriptions are kept in memory
    EXPECT_EQ(Lookup(m_strFile), Fooled());
}

TEST_P(Attacks, ARestoredOlderDatabaseOrAForeignOneAnswersForNoChangedFile) { // 16
    Remember(m_strFile);
    (void)LocalCacheUnInit();
    fs::rename(m_install.Database(), m_install.Path("backup"));
    Restart();
    (void)LocalCacheUnInit();
    fs::rename(m_install.Path("backup"), m_install.Database());
    Restart();
    struct stat changed = StatusOf(m_strFile);
    changed.st_ctim.tv_nsec ^= 1;
    EXPECT_EQ(Lookup(m_strFile, changed), Fooled());
    fs::remove(m_install.Path("engine/cache/morcache.key")); // another machine has another key
    Restart();
    EXPECT_EQ(Lookup(m_strFile), Fooled());
}

TEST_P(Attacks, AChangeDuringTheScan) { // 12 hard links, 13 truncate and grow
    const std::string strLink = m_install.Path("link");
    std::unique_ptr<_Map> pMap;
    const std::pair<const char *, std::function<void()>> attacks[] = {
        {"write", [&] { Write(m_strFile); }},
        {"hard link", [&] { Write(strLink); }},
        {"map", [&] { _Map(m_strFile).pPage[0] = 'M'; }},
        {"map that stays", [&] { pMap = std::make_unique<_Map>(m_strFile), pMap->pPage[0] = 'M'; }},
        {"truncate and grow", [&] { fs::resize_file(m_strFile, 0), Write(m_strFile); }},
        {"rename", [&] { fs::rename(m_install.WriteFile("other", "MALWR"), m_strFile); }},
    };
    fs::create_hard_link(m_strFile, strLink);
    for (const auto &[pszName, attack] : attacks) {
        m_install.WriteFile("file", "clean");
        ASSERT_EQ(LocalCacheClear(), TARN_OK);
        EXPECT_EQ(ScanWhile(m_strFile, attack), GetParam() ? TARN_REMEMBER_CHANGED : TARN_REMEMBER_YES) << pszName;
        EXPECT_EQ(ReadWholeFile(m_strFile)[0], 'M') << pszName;
        EXPECT_EQ(Lookup(m_strFile), Fooled()) << pszName;
        pMap = nullptr;
    }
}

TEST_P(Attacks, AMapThatWasDirtyBeforeTheScan) { // 5
    const _Map map(m_strFile);
    map.pPage[0] = 'h';
    ScanWhile(m_strFile, [] {});
    map.pPage[0] = 'M'; // no new change time
    EXPECT_EQ(Lookup(m_strFile), Fooled());
}

TEST_P(Attacks, FoldersExchangedDuringTheScan) { // 4
    const std::string strFile = MakeFolders("harmless", "malware");
    ScanWhile(strFile, [&] { ExchangeFolders(); });
    EXPECT_EQ(ReadWholeFile(strFile), "malware");
    EXPECT_EQ(Lookup(strFile), Fooled());
}

TEST_P(Attacks, AnotherFileBetweenTheWalkAndTheOpen) { // 11
    const std::string strFile = MakeFolders("malware", "harmless");
    const struct stat walked = StatusOf(strFile);
    const _SCAN_FILE_RESULT clean = Verdict(1);
    ExchangeFolders();
    GetParam() ? Scan(strFile) : LocalCacheAddStat(strFile.c_str(), &walked, "", &clean);
    ExchangeFolders();
    ASSERT_EQ(LocalCacheFlush(60000, nullptr), TARN_OK);
    EXPECT_EQ(Lookup(strFile), Fooled());
}

TEST_P(Attacks, TwoScansAtOnce) { // 15
    ScanWhile(m_strFile, [&] {    // the slower one has read what is harmless
        Write(m_strFile);
        CBracketedScan faster;
        GetParam() ? (void)faster.Scan(m_strFile, 0, Verdict(2)) : Remember(m_strFile, Verdict(2));
    });
    EXPECT_EQ(Lookup(m_strFile) == TARN_OK && m_found.lEngineCode == 1, !GetParam());
}

TEST_P(Attacks, AServerWhoseClockIsBehind) { // 7
    if (TypeOf(m_strFile) != Ext) {
        GTEST_SKIP() << "the temporary folder is not on ext4";
    }
    g_ulFileSystem = GetParam() ? Nfs : 0; // unprotected, it is taken for one that has the host's own clock
    g_liAhead = 3600;
    EXPECT_EQ(Scan(m_strFile, TARN_ALLOW_NETWORK), GetParam() ? TARN_REMEMBER_RECENT : TARN_REMEMBER_YES);
    EXPECT_EQ(Lookup(m_strFile, m_scan.status), Fooled()); // as after a second change within the tick
}

TEST_P(Attacks, AKillBeforeTheRecordIsTakenBack) { // 8
    (void)LocalCacheUnInit();
    const pid_t host = fork();
    if (host == 0) {
        Restart();
        ScanWhile(m_strFile, [&] { Write(m_strFile); });
        (void)kill(getpid(), SIGKILL); // it was about to see the change and to delete the record
    }
    ASSERT_EQ(waitpid(host, nullptr, 0), host);
    Restart();
    EXPECT_EQ(Lookup(m_strFile), Fooled());
}

TEST_P(Attacks, AWithdrawalWhoseDeletionsFail) { // 9
    const CSecondConnection other(m_install.Database());
    for (const std::string strTaken : {"engine/clean_engine_flag.taken", "engine/kelmorehash/update_cache.taken"}) {
        Remember(m_strFile, Verdict(48));
        (void)LocalCacheUnInit();
        ASSERT_TRUE(other.Run("begin immediate"));
        strTaken.ends_with("cache.taken") ? LeaveList(m_install, "engine:1\n" + DigestText(7))
                                          : (void)m_install.WriteFile("engine/clean_engine_flag");
        for (int iStart = 0; iStart < 2; ++iStart) { // over a restart too
            Restart();
            EXPECT_EQ(Lookup(m_strFile), Fooled()) << strTaken << iStart;
            EXPECT_EQ(Exists(m_install.Path(strTaken)), GetParam()) << iStart;
        }
        (void)LocalCacheUnInit();
        ASSERT_TRUE(other.Run("rollback"));
        Restart();
        EXPECT_FALSE(Exists(m_install.Path(strTaken)));
        EXPECT_EQ(other.Number("select count(*) from CT"), GetParam() ? 0 : 1) << strTaken; // at last
    }
}

TEST_P(Attacks, AFileBoundOverTheKnownOne) { // 14
    if (!LeaveMounts()) {
        GTEST_SKIP() << "mounts are root's: " << strerror(errno);
    }
    Restart(); // sees these mounts
    const std::string strOther = m_install.WriteFile("other", "malware");
    Remember(m_strFile);
    const int64_t liSecond = StatusOf(m_strFile).st_ctim.tv_sec;
    ASSERT_EQ(mount(strOther.c_str(), m_strFile.c_str(), "", MS_BIND, nullptr), 0);
    struct stat malware = StatusOf(m_strFile);
    malware.st_ctim.tv_sec = liSecond; // made in the same second
    EXPECT_EQ(Lookup(m_strFile, malware), Fooled());
    EXPECT_EQ(umount2(m_strFile.c_str(), MNT_DETACH), 0);
}
