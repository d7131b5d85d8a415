// platform_fixture.h - a throw-away installation for the tests of the bundled base services.
#ifndef TARN_TESTS_PLATFORM_FIXTURE_H
#define TARN_TESTS_PLATFORM_FIXTURE_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>

class PlatformTest : public ::testing::Test {
  protected:
    PlatformTest() {
        std::string strTemplate = ::testing::TempDir() + "/platform.XXXXXX";
        m_root = mkdtemp(strTemplate.data());
        std::filesystem::create_directories(m_root / "config");
        setenv("TARN_INSTALL_DIR", Path("lib").c_str(), 1);
    }
    ~PlatformTest() override { std::filesystem::remove_all(m_root); }
    std::string Path(const std::string &strName) const { return m_root / strName; } // an absolute name stays as it is
    std::string Write(const std::string &strName, const std::string &strText) const {
        std::ofstream(Path(strName), std::ios::binary) << strText;
        return Path(strName);
    }
    std::string Read(const std::string &strName) const {
        return (std::ostringstream() << std::ifstream(Path(strName), std::ios::binary).rdbuf()).str();
    }
    struct stat Status(const std::string &strName) const {
        struct stat status = {};
        EXPECT_EQ(stat(Path(strName).c_str(), &status), 0) << strName;
        return status;
    }
    std::filesystem::path m_root;
};

#endif
