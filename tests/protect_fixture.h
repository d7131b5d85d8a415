// protect_fixture.h - a running cache with or without the key "protect", as the test's parameter says.
#ifndef TARN_TESTS_PROTECT_FIXTURE_H
#define TARN_TESTS_PROTECT_FIXTURE_H

#include "tests/cache_fixture.h"

class ProtectTest : public CCacheTest, public testing::WithParamInterface<bool> {
  protected:
    ProtectTest() { Restart(); }
    // Another installation of the cache in the same folder; its records stay.
    void Restart(bool bProtect = GetParam()) {
        (void)LocalCacheUnInit();
        m_install.WriteFile("config/tarncfg.ini",
                            std::string("[cacheeng]\nexpiretime=4102444800\n") + (bProtect ? "protect=1\n" : ""));
        Start();
    }
    static uint32_t Fooled() { return GetParam() ? TARN_NOT_CACHED : TARN_OK; }
};

inline std::string NameOfParameter(const testing::TestParamInfo<bool> &info) {
    return info.param ? "Protected" : "Unprotected";
}

#endif
