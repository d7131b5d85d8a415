// The scenario under every kind of fault. TARN_TEST_LENGTH: the share of the points, kills and damages in percent.
#include "tests/faults_fixture.h"

// Without this the others could not fail.
TEST_F(Faults, WhatIsPlantedIsSeen) {
    const std::pair<const char *, std::function<std::string()>> planted[] = {
        {"signal 6", [] { return InChild(abort); }},
        {"signal 9", [] { return RunInChild([] { (void)pause(); }, std::chrono::milliseconds(1)); }},
        {" lost:1", [this] { return Database().Run("delete from CT where (FTV>>32)&65535 = 1") ? "" : "?"; }},
        {" left:x", [this] { return m_install.WriteFile("engine/x"), ""; }},
        {" wrong:1", [this] { return m_model.aeFiles[0] = EExpected::Gone, ""; }},
        {" lost:8 unusable left:clean_engine_flag", [this] { return fs::remove(m_install.Config()) ? "" : "?"; }},
    };
    for (const auto &[pszComplaint, plant] : planted) {
        const std::string strWrong = RunOnce(plant);
        EXPECT_EQ(strWrong.find(pszComplaint), 0U) << pszComplaint << " and not " << strWrong;
    }
}

TEST_F(Faults, EachSystemCallOfSQLiteFails) {
    EachPoint("system calls that fail once", EFault::File);
    EachPoint("system calls that fail from one on", EFault::File, true);
}

TEST_F(Faults, EachAllocationFails) {
    EachPoint("allocations that fail once", EFault::Memory);
    EachPoint("allocations that fail from one on", EFault::Memory, true);
}

TEST_F(Faults, KilledAtEachSystemCallAndAtAnyMoment) {
    EachPoint("kills at system calls", EFault::Kill);
    Run("kills at any moment", 3 * TestLength(), [this](uint64_t) {
        (void)RunInChild([this] { Play(); }, std::chrono::microseconds(m_random() % 30000));
        return "";
    });
}

TEST_F(Faults, DISABLED_DamagedDatabasesAndJournals) {
    const uint64_t nPoints = CountPoints(EFault::Kill);
    const auto run = [&](uint64_t i) {
        if (i % 2 == 0) { // beside a journal to be rolled back
            (void)PlayWith(EFault::Kill, m_random() % nPoints);
            std::fill_n(m_model.aeFiles, kFiles, EExpected::Either);
        }
        Damage();
        return InChild([this] { Play(); });
    };
    Run("damaged files", 100 * TestLength(), run, true);
}

int main(int argc, char **argv) {
    setenv("TMPDIR", "/dev/shm", access("/dev/shm", W_OK)); // no disk, where there is such a folder
    PutInFrontOfSQLite();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
