// attacks_fixture.h - a cache with or without its guards, and the hashes of records as an attacker makes them.
#ifndef TARN_TESTS_ATTACKS_FIXTURE_H
#define TARN_TESTS_ATTACKS_FIXTURE_H

#include "tests/bracket_fixture.h"
#include "tests/protect_fixture.h"

inline uint32_t AttrHash(int64_t liSize, int64_t liSecond) {
    const int64_t aliBlock[] = {liSize, liSecond};
    return Crc32(0, reinterpret_cast<const unsigned char *>(aliBlock), sizeof aliBlock);
}

// A size below 2^44 bytes that gives the wanted hash at that second. A CRC is linear over the bits of the size, so this
// is a small system of equations.
inline int64_t ForgeSize(uint32_t ulWanted, int64_t liSecond) {
    std::map<uint32_t, int64_t, std::greater<>> mapBasis; // what a change of the size changes in the hash
    const auto reduce = [&](std::pair<uint32_t, int64_t> row) {
        for (const auto &[ulHash, liSize] : mapBasis) {
            if ((row.first ^ ulHash) < row.first) {
                row = {row.first ^ ulHash, row.second ^ liSize};
            }
        }
        return row;
    };
    const uint32_t ulZero = AttrHash(0, liSecond);
    for (int64_t liBit = 1; liBit < int64_t{1} << 44; liBit *= 2) {
        mapBasis.insert(reduce({AttrHash(liBit, liSecond) ^ ulZero, liBit}));
    }
    const auto [ulRest, liSize] = reduce({ulWanted ^ ulZero, 0});
    return ulRest == 0 ? liSize : -1;
}

inline uint32_t FolderCrc(const std::string &strFolder) {
    return Crc32(0, reinterpret_cast<const unsigned char *>(strFolder.data()), strFolder.size()) & 0xFFFFU;
}

class Attacks : public ProtectTest, public CBracketedScan {
  protected:
    // A scan that finds the file clean, and what happens meanwhile. Unprotected, a host adds by path.
    uint32_t ScanWhile(const std::string &strPath, const std::function<void()> &happens) {
        if (!GetParam()) {
            happens();
            Remember(strPath);
            return TARN_REMEMBER_YES;
        }
        Begin(strPath);
        happens();
        return Finish(strPath);
    }
    // Two folders that can change places without a new change time of their files, and the first one's file.
    std::string MakeFolders(const std::string &strFirst, const std::string &strSecond) const {
        std::filesystem::create_directory(m_strFirst);
        std::filesystem::create_directory(m_strSecond);
        m_install.WriteFile(m_strSecond + "/name", strSecond);
        return m_install.WriteFile(m_strFirst + "/name", strFirst);
    }
    void ExchangeFolders() const {
        EXPECT_EQ(renameat2(AT_FDCWD, m_strFirst.c_str(), AT_FDCWD, m_strSecond.c_str(), RENAME_EXCHANGE), 0);
    }
    const std::string m_strFirst = m_install.Path("first"), m_strSecond = m_install.Path("second");
};

#endif
