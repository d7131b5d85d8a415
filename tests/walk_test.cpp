// The walk from "/" over a temporary tree: its pruning lets it into little else.
#include "util/dbfileutil.h"

#include "tests/support/install.h"
#include "tests/support/services.h"

#include <bit>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::function<bool(const std::string &)> g_onHash; // called with each text that is hashed until it answers true

bool Logged(const std::string &strText) {
    return RecordedLog::Contains("[FindFilesByCchRecords]" + strText);
}

class Walk : public testing::Test {
  protected:
    Walk() { RecordedLog::SetSource("dbfileutil"); }
    static int64_t HashOf(const std::string &strPath) {
        uint32_t aulWords[2] = {};
        EXPECT_EQ(CalcFilePathCrc32(strPath.c_str(), aulWords), 1);
        return std::bit_cast<int64_t>(aulWords);
    }
    // A record as an addition of the path leaves it, with an earlier text in its path field.
    _CacheRecordEx &AddRecord(const std::string &strPath, const std::string &strMD5 = "md5") {
        _CacheRecordEx &record = m_listRecords.emplace_back(_CacheRecordEx{{}, "before"});
        record.liFilePathHash = HashOf(strPath);
        EXPECT_EQ(CalcFilePathIndex(strPath.c_str(), record.szFilePathIndex, kPathIndexLength), 1);
        m_map[strMD5].push_back(&record);
        return record;
    }
    std::string MakeDir(const std::string &strBelow) const {
        fs::create_directories(m_install.Path(strBelow));
        return m_install.Path(strBelow) + "/";
    }
    void Run() {
        RecordedLog::Clear();
        RecordedLog::SetDebug(true);
        EXPECT_EQ(CdbFileUtil().FindFilesByCchRecords(m_map), 0U);
        RecordedLog::SetDebug(false);
    }
    const CTempInstall m_install;
    std::list<_CacheRecordEx> m_listRecords;
    RecordMap m_map;
};

} // namespace

extern "C" uint32_t Crc32(uint32_t seed, const unsigned char *data, uint64_t length) {
    if (g_onHash && g_onHash(std::string(reinterpret_cast<const char *>(data), length))) {
        g_onHash = nullptr;
    }
    static const auto pReal = reinterpret_cast<decltype(&Crc32)>(dlsym(RTLD_NEXT, "Crc32"));
    return pReal(seed, data, length);
}

extern "C" int fstatat(int fd, const char *pszName, struct stat *pStatus, int iFlags) noexcept {
    if (std::strcmp(pszName, "broken") == 0) { // its status cannot be read
        errno = EIO;
        return -1;
    }
    static const auto pReal = reinterpret_cast<decltype(&fstatat)>(dlsym(RTLD_NEXT, "fstatat64"));
    return pReal(fd, pszName, pStatus, iFlags);
}

TEST_F(Walk, FilterPassesDirectoriesThatCouldHoldARecord) {
    const std::tuple<const char *, std::vector<std::string>, bool> cases[] = {{"/", {}, true},
                                                                              {"/", {""}, true},
                                                                              {"/usr/x/", {"/"}, true},
                                                                              {"/usr/x/", {"/v"}, true},
                                                                              {"/", {"/"}, false},
                                                                              {"/usr/", {"/"}, false},
                                                                              {"/a/b/c/", {"/ab"}, false},
                                                                              {"/usr/x/", {"/v", "/u"}, false},
                                                                              {"", {}, false},
                                                                              {"/a/b/c/d/e/f/", {"/abcd"}, false}};
    for (const auto &[pszDir, vecIndexes, bSkipped] : cases) {
        EXPECT_EQ(CdbFileUtil().FilterDir(pszDir, vecIndexes), bSkipped)
            << pszDir << testing::PrintToString(vecIndexes);
    }
    EXPECT_EQ(RecordedLog::Texts(2), std::vector<std::string>{"[FilterDir]CalFilePathIndex failed."});
    m_map = {{"a", {}}, {"b", {nullptr, nullptr}}};
    Run(); // nothing is entered without records
    EXPECT_EQ(RecordedLog::Texts(), std::vector<std::string>{"[FindFilesByCchRecords]already finish enum files."});
}

TEST_F(Walk, FindsRegularFilesUnderAnyNameAndFollowsNoLink) {
    const std::string strDir = MakeDir("tree/sub");
    const std::string strPlain = m_install.WriteFile("tree/sub/plain");
    fs::create_symlink("plain", strDir + "link");
    fs::create_symlink("..", strDir + "loop");
    ASSERT_EQ(mkfifo((strDir + "fifo").c_str(), 0600), 0);
    ASSERT_EQ(mknod((strDir + "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    const std::string strOdd = m_install.WriteFile("tree/na\nme;\xff\xfe %s");
    m_map["a"] = {nullptr};
    for (const char *pszName : {"link", "loop/sub/plain", "fifo", "socket", "gone", "", "plain"}) {
        (void)AddRecord(strDir + pszName, "b");
    }
    const std::string strBroken = m_install.WriteFile("tree/broken"), strError = "Input/output error";
    (void)AddRecord(strBroken);
    const _CacheRecordEx &first = AddRecord(strPlain, "a"), &odd = AddRecord(strOdd); // first in map order
    const auto descriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    const auto nBefore = descriptors();
    Run();
    EXPECT_EQ(descriptors(), nBefore);
    EXPECT_EQ(first.szFilePath, strPlain);
    EXPECT_EQ(odd.szFilePath, strOdd);
    EXPECT_TRUE(Logged("get file " + strBroken + " stat failed. error:" + strError));
    EXPECT_TRUE(Logged("readdir failed with error:" + strError + ".")); // once more at the end of its directory
    for (const _CacheRecordEx *pRecord : m_map["b"]) {
        EXPECT_STREQ(pRecord->szFilePath, "before") << pRecord->liFilePathHash;
    }
}

TEST_F(Walk, ReachesPathsUpToTheLimitAndSkipsLongerOnes) {
    std::string strDeep = MakeDir("d");
    int fd = open(strDeep.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const auto makeDir = [&](const std::string &strName) {
        EXPECT_EQ(mkdirat(fd, strName.c_str(), 0700), 0);
        return openat(fd, strName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    };
    const auto name = [&](size_t nPathLength, char ch) { return std::string(nPathLength - strDeep.size(), ch); };
    while (strDeep.size() < 3900) {
        const std::string strName = name(std::min<size_t>(strDeep.size() + 200, 3900), 'd');
        close(std::exchange(fd, makeDir(strName)));
        strDeep += strName + "/";
    }
    const std::string strFits = name(4095, 'f'), strOver = name(4096, 'g'), strOverDir = name(4095, 'i');
    close(openat(fd, strFits.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    close(openat(fd, strOver.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    for (const int fdOpen : {makeDir(strOverDir), fd}) {
        EXPECT_EQ(close(fdOpen), 0);
    }
    const _CacheRecordEx &fits = AddRecord(strDeep + strFits), &over = AddRecord(strDeep + strOver);
    Run();
    EXPECT_EQ(fits.szFilePath, strDeep + strFits);
    EXPECT_STREQ(over.szFilePath, "before");
    EXPECT_TRUE(Logged("the length of the [" + strDeep + strOver + "]  is over the 4096."));
    EXPECT_TRUE(Logged("the length of path:" + strDeep + strOverDir + " is over the max size of linux path."));
}

// Three directories are queued; while the first of them is read, one of the others goes and one becomes a link.
TEST_F(Walk, SurvivesDirectoriesThatVanishOrBecomeLinks) {
    std::vector<std::string> vecDirs;
    for (const std::string strName : {"r/a", "r/b", "r/c"}) {
        vecDirs.push_back(MakeDir(strName));
        (void)AddRecord(m_install.WriteFile(strName + "/x"));
    }
    g_onHash = [&](const std::string &strText) {
        const auto it = std::find(vecDirs.begin(), vecDirs.end(), strText);
        if (it != vecDirs.end()) {
            std::iter_swap(vecDirs.begin(), it);
            fs::remove_all(vecDirs[1]);
            fs::rename(vecDirs[2], m_install.Path("moved"));
            fs::create_directory_symlink("../moved", vecDirs[2].substr(0, vecDirs[2].size() - 1));
        }
        return it != vecDirs.end();
    };
    Run();
    EXPECT_TRUE(Logged("open dir:" + vecDirs[1] + " failed, err:No such file or directory."));
    std::multiset<std::string> setPaths;
    for (const _CacheRecordEx &record : m_listRecords) {
        setPaths.insert(record.szFilePath);
    }
    EXPECT_EQ(setPaths, (std::multiset<std::string>{"before", "before", vecDirs[0] + "x"}));
}

TEST_F(Walk, OfTwoFilesWithOneHashTheDeeperOneIsReadLaterAndStays) {
    for (const auto &[pszUpper, pszLower] : {std::pair("a/", "b/d/"), std::pair("b/", "a/d/")}) {
        std::map<int64_t, std::string> mapHigh;
        std::string strLow;
        for (int i = 0; i == 0 || !mapHigh.contains(HashOf(strLow)); ++i) {
            const std::string strHigh = m_install.Path(pszUpper + std::to_string(i) + "/x");
            mapHigh[HashOf(strHigh)] = strHigh;
            strLow = m_install.Path(pszLower + std::to_string(i) + "/x");
        }
        const _CacheRecordEx *apRecords[2] = {};
        m_map.clear();
        for (const std::string &strPath : {mapHigh[HashOf(strLow)], strLow}) {
            fs::create_directories(fs::path(strPath).parent_path());
            apRecords[strPath == strLow ? 1 : 0] = &AddRecord(m_install.WriteFile(strPath));
        }
        Run();
        EXPECT_EQ(apRecords[0]->szFilePath, strLow); // the first record with a hash takes them all
        EXPECT_STREQ(apRecords[1]->szFilePath, "before");
    }
}
