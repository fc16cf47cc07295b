#include "Progress.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

namespace EffectHost {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// A clock that stands still.
Progress::Clock After(std::chrono::nanoseconds time) {
    return [time] { return time; };
}

const Progress::Clock kNoTime = After(std::chrono::nanoseconds(0));

std::string Shown(ProgressStyle style, std::size_t total) {
    std::ostringstream out;
    Progress progress(out, style, total, kUsualWidth, kNoTime);
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
        Progress progress(out, ProgressStyle::Bar, 3, kUsualWidth, kNoTime);
        progress.Advance(true);
    }
    EXPECT_THAT(out.str(), EndsWith("1/3, 1 compiled\n"));
}

TEST(Progress, ABarLeavesTheLastColumnOfANarrowTerminalFree) {
    for (const std::size_t width : {64u, 40u, 30u, 20u, 10u}) {
        std::ostringstream out;
        Progress(out, ProgressStyle::Bar, 1000, width, After(std::chrono::hours(1))).Show(999, 999);
        const std::string text = out.str();
        ASSERT_THAT(text, StartsWith("\r"));
        EXPECT_LE(text.size() - 2, width - 1) << text;  // without \r and \n
        EXPECT_THAT(text, HasSubstr("999/1000"));
    }
}

TEST(Progress, SeveralStepsAtOncePrintOneLine) {
    std::ostringstream out;
    Progress progress(out, ProgressStyle::Lines, 100, kUsualWidth, kNoTime);
    progress.Show(35, 20);
    progress.Show(35, 20);
    EXPECT_EQ(out.str(), "35 of 100 effects, 20 compiled\n");
}

TEST(Progress, TheRateAndTheTimeLeftAreShownAfterTheFirstSecond) {
    using namespace std::chrono_literals;
    struct Case {
        std::chrono::nanoseconds elapsed;
        std::size_t done;
        const char* line;
    };
    const Case cases[] = {
        {999ms, 100, "100 of 1000 effects, 7 compiled\n"},
        {1s, 100, "100 of 1000 effects, 7 compiled, 100 a second, 9 s left\n"},
        {200s, 500, "500 of 1000 effects, 7 compiled, 2.5 a second, 3 min left\n"},
        {10s, 1000, "1000 of 1000 effects, 7 compiled, 100 a second\n"},
    };
    for (const Case& each : cases) {
        std::ostringstream out;
        Progress(out, ProgressStyle::Lines, 1000, kUsualWidth, After(each.elapsed))
            .Show(each.done, 7);
        EXPECT_EQ(out.str(), each.line);
    }
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
