// platform_fixture.h - a throw-away installation for the tests of the bundled base services.
#ifndef TARN_TESTS_PLATFORM_FIXTURE_H
#define TARN_TESTS_PLATFORM_FIXTURE_H

#include "tests/support/install.h"

#include <gtest/gtest.h>

class PlatformTest : public testing::Test, protected CTempInstall {
  protected:
    std::string Read(const std::string &strName) const { return ReadWholeFile(Path(strName)); }
    struct stat Status(const std::string &strName) const {
        return StatusOf(Path(strName));
    }
};

#endif
