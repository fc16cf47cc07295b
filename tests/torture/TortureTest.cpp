// A short run of what quorvel-torture does for as long as one likes.
#include <gtest/gtest.h>

#include "support/TemporaryDirectory.h"
#include "torture/Torture.h"

namespace Quorvel::Torture {

namespace {

TEST(Torture, OrderlyProcessesLoseNothingAndServeNothingWrong) {
    const Testing::TemporaryDirectory directory;
    const Report report = RunTorture({directory.Path().string(), 20091030, 6, 4, 0});
    EXPECT_TRUE(report.IsGood()) << report;
    EXPECT_GT(report.effectsAtEnd, 0U) << report;
}

TEST(Torture, DeathsServeNothingWrongAndLeaveAFileThatTheNextProcessCanUse) {
    const Testing::TemporaryDirectory directory;
    const Report report = RunTorture({directory.Path().string(), 7, 0, 2, 60});
    EXPECT_TRUE(report.IsGood()) << report;
    EXPECT_EQ(report.killed, 60U) << report;
}

}  // namespace

}  // namespace Quorvel::Torture
