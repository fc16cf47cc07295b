// Short runs of quorvel-torture.
#include <gtest/gtest.h>

#include "support/TemporaryDirectory.h"
#include "torture/Torture.h"

namespace Quorvel::Torture {

namespace {

constexpr std::uint64_t kMebibyte = 0x100000;

TEST(Torture, OrderlyProcessesLoseNothingAndFindNoWrongBytes) {
    const Testing::TemporaryDirectory directory;
    const Report report = RunTorture(
        {.directory = directory.Path().string(), .seed = 20091030, .seconds = 6, .processes = 4});
    EXPECT_TRUE(report.IsGood()) << report;
    EXPECT_GT(report.effectsAtEnd, 0U) << report;
}

TEST(Torture, ProcessesShortOfRoomKeepPermanentEffectsAndFindNoWrongBytes) {
    const Testing::TemporaryDirectory directory;
    const Report report = RunTorture({.directory = directory.Path().string(),
                                      .seed = 11,
                                      .seconds = 4,
                                      .processes = 4,
                                      .room = 3 * kMebibyte});
    EXPECT_TRUE(report.IsGood()) << report;
}

TEST(Torture, KilledProcessesCostNothingThatWasSaved) {
    const Testing::TemporaryDirectory directory;
    const Report report = RunTorture(
        {.directory = directory.Path().string(), .seed = 7, .processes = 2, .kills = 60});
    EXPECT_TRUE(report.IsGood()) << report;
    EXPECT_EQ(report.killed, 60U) << report;
}

// Some of the processes die in a trim.
TEST(Torture, KilledProcessesShortOfRoomCostNothingPermanentThatWasSaved) {
    const Testing::TemporaryDirectory directory;
    const Report report = RunTorture({.directory = directory.Path().string(),
                                      .seed = 8,
                                      .processes = 4,
                                      .kills = 60,
                                      .room = 3 * kMebibyte});
    EXPECT_TRUE(report.IsGood()) << report;
    EXPECT_EQ(report.killed, 60U) << report;
}

}  // namespace

}  // namespace Quorvel::Torture
