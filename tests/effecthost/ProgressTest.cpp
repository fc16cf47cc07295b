#include "Progress.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

namespace EffectHost {
namespace {

using ::testing::EndsWith;
using ::testing::StartsWith;

std::string Shown(ProgressStyle style, std::size_t total) {
    std::ostringstream out;
    Progress progress(out, style, total);
    for (std::size_t i = 0; i < total; ++i) {
        progress.Advance(i % 2 == 0);
    }
    return out.str();
}

TEST(Progress, LinesComeForEveryTenthOfTheWork) {
    const std::string text = Shown(ProgressStyle::Lines, 200);
    EXPECT_THAT(text, StartsWith("20 of 200 effects, 10 compiled\n"));
    EXPECT_THAT(text, EndsWith("200 of 200 effects, 100 compiled\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 10);
}

TEST(Progress, ABarEndsFullAndWithALineEnd) {
    const std::string text = Shown(ProgressStyle::Bar, 3);
    EXPECT_THAT(text, EndsWith("[########################################] 3/3, 2 compiled\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST(Progress, NothingIsShownWhenNothingIsAskedFor) {
    EXPECT_EQ(Shown(ProgressStyle::None, 10), "");
}

}  // namespace
}  // namespace EffectHost
