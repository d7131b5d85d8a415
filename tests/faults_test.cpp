// One scenario, from start to shut-down with the key "protect", under every kind of fault. What a fault cost is judged
// afterwards: by a start without one, by another connection, and by the files that are left.
#include "tests/faults_fixture.h"

// Without this the others could not fail.
TEST_F(Faulty, WhatIsPlantedIsSeen) {
    const std::pair<const char *, std::function<std::string()>> planted[] = {
        {"signal 6", [] { return Faults::RunInChild(abort); }},
        {"killed", [] { return Faults::RunInChild([] { (void)pause(); }, std::chrono::milliseconds(1)); }},
        {" lost:1", [this] { return Database().Run("delete from CT where (FTV>>32)&65535 = 1") ? "" : "?"; }},
        {" left:x", [this] { return m_install.WriteFile("engine/x"), ""; }},
        {" wrong:1", [this] { return m_model.aeFiles[0] = EExpected::Gone, ""; }},
        {" lost:8 unusable left:clean_engine_flag", [this] { return fs::remove(m_install.Config()) ? "" : "?"; }},
    };
    for (const auto &[pszComplaint, plant] : planted) {
        const std::string strWrong = RunOnce(plant, false);
        EXPECT_EQ(strWrong.find(pszComplaint), 0U) << pszComplaint << " and not " << strWrong;
    }
}

TEST_F(Faulty, DISABLED_EachFileOperationFails) {
    EachPoint("file operations that fail once", EKind::File);
    EachPoint("file operations that fail from one on", EKind::File, true);
}

TEST_F(Faulty, DISABLED_EachAllocationFails) {
    EachPoint("allocations that fail once", EKind::Memory);
    EachPoint("allocations that fail from one on", EKind::Memory, true);
}

TEST_F(Faulty, KilledAtEachFileOperationAndAtAnyMoment) {
    EachPoint("kills at file operations", EKind::Kill);
    Run("kills at any moment", 3 * TestLength(), [this](uint64_t) {
        (void)Faults::RunInChild([this] { Play(); }, std::chrono::microseconds(m_random() % 30000));
        return "";
    });
}

TEST_F(Faulty, DISABLED_DamagedDatabasesAndJournals) {
    (void)PlayWith(EKind::Kill, 0, false);
    const uint64_t nPoints = m_model.nPoints;
    Run(
        "damaged files", 100 * TestLength(),
        [&](uint64_t i) {
            if (i % 2 == 0) { // beside a journal to be rolled back
                (void)PlayWith(EKind::Kill, m_random() % nPoints, false);
                std::fill_n(m_model.aeFiles, kFiles, EExpected::Either);
            }
            Damage();
            return Faults::RunInChild([this] { Play(); });
        },
        true);
}

int main(int argc, char **argv) {
    Faults::Install();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
