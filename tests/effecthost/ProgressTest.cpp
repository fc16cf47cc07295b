#include "Progress.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

namespace EffectHost {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string Shown(ProgressStyle style, std::size_t total) {
    std::ostringstream out;
    Progress progress(out, style, total);
    for (std::size_t i = 0; i < total; ++i) {
        progress.Advance(i % 2 == 0);
    }
    return out.str();
}

TEST(Progress, ALineIsPrintedForEachTenthOfTheWork) {
    const std::string text = Shown(ProgressStyle::Lines, 200);
    EXPECT_THAT(text, StartsWith("20 of 200 effects, 10 compiled\n"));
    EXPECT_THAT(text, EndsWith("200 of 200 effects, 100 compiled\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 10);
}

TEST(Progress, ABarEndsFullAndWithALineBreak) {
    const std::string text = Shown(ProgressStyle::Bar, 3);
    EXPECT_THAT(text, EndsWith("[########################################] 3/3, 2 compiled\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST(Progress, AnUnfinishedBarEndsItsLine) {
    std::ostringstream out;
    {
        Progress progress(out, ProgressStyle::Bar, 3);
        progress.Advance(true);
    }
    EXPECT_THAT(out.str(), EndsWith("1/3, 1 compiled\n"));
}

TEST(Progress, ABarLeavesTheLastColumnOfANarrowTerminalFree) {
    for (const std::size_t width : {64u, 40u, 30u, 20u, 10u}) {
        std::ostringstream out;
        Progress(out, ProgressStyle::Bar, 1000, width).Show(999, 999);
        const std::string text = out.str();
        ASSERT_THAT(text, StartsWith("\r"));
        EXPECT_LE(text.size() - 2, width - 1) << text;  // without \r and \n
        EXPECT_THAT(text, HasSubstr("999/1000"));
    }
}

TEST(Progress, SeveralStepsAtOncePrintOneLine) {
    std::ostringstream out;
    Progress progress(out, ProgressStyle::Lines, 100);
    progress.Show(35, 20);
    progress.Show(35, 20);
    EXPECT_EQ(out.str(), "35 of 100 effects, 20 compiled\n");
}

TEST(Progress, AReportIsParsedAndOtherLinesAreNot) {
    std::ostringstream out;
    Progress(out, ProgressStyle::Reports, 9).Show(5, 2);
    std::string line = out.str();
    ASSERT_THAT(line, EndsWith("\n"));
    line.pop_back();
    const auto report = ParseProgressReport(line);
    ASSERT_TRUE(report);
    EXPECT_EQ(report->done, 5u);
    EXPECT_EQ(report->compiled, 2u);
    for (const char* other : {"", "progress", "progress 5", "progress of 5 2", "{\"hits\":5}"}) {
        EXPECT_FALSE(ParseProgressReport(other)) << other;
    }
}

TEST(Progress, TheStyleNoneShowsNothing) {
    EXPECT_EQ(Shown(ProgressStyle::None, 10), "");
}

}  // namespace
}  // namespace EffectHost
