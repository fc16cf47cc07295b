#include "tools/quorvel/WatchView.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Quorvel::Tool {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Clock = WatchView::Clock;

constexpr Format::EntryTime kTime = {2026, 11, 22, 13, 5, 7, 250};

WatchUpdate Update(std::vector<std::string> added, std::vector<std::string> replaced = {},
                   std::vector<std::string> removed = {}) {
    WatchUpdate update;
    update.time = kTime;
    update.state.effects = 5;
    update.state.bytes = 2048;
    update.state.fileSize = 81920;
    update.added = std::move(added);
    update.replaced = std::move(replaced);
    update.removed = std::move(removed);
    return update;
}

WatchUpdate First() {
    WatchUpdate update = Update({});
    update.isFirst = true;
    return update;
}

TEST(WatchView, SummarisesAnUpdate) {
    EXPECT_EQ(Summary(Update({"a", "b"}, {"c"}, {"d"})), "2 added, 1 replaced, 1 removed");
    EXPECT_EQ(Summary(Update({}, {}, {"d"})), "1 removed");
    EXPECT_EQ(Summary(Update({})), "the same effects");
    EXPECT_EQ(Summary(First()), "watching");
    WatchUpdate damaged;
    damaged.problem = "damaged";
    EXPECT_EQ(Summary(damaged), "damaged");
}

TEST(WatchView, ShowsStateAndChangesNewestFirst) {
    WatchView view("cache");
    const Clock::time_point start;
    view.Add(First(), start);
    view.Add(Update({"new\n"}, {"other"}, {"old"}), start + std::chrono::seconds(10));
    EXPECT_THAT(view.Lines(kTime, start + std::chrono::seconds(15), 80, 24),
                ElementsAre("13:05:07  cache", "", "effects  5 of 65534",
                            "bytes    2.0 KiB in a file of 80.0 KiB",
                            "saves    1 in the last minute, the last one 5 seconds ago", "",
                            "13:05:07  1 added, 1 replaced, 1 removed", "          + new\\x0A",
                            "          ~ other", "          - old", "13:05:07  watching"));
}

TEST(WatchView, ShowsAFewNamesOfABigUpdate) {
    WatchView view("cache");
    view.Add(Update(std::vector<std::string>(60000, "name")), Clock::time_point());
    const std::vector<std::string> lines = view.Lines(kTime, Clock::time_point(), 80, 24);
    ASSERT_EQ(lines.size(), 16U);
    EXPECT_EQ(lines[6], "13:05:07  60000 added");
    EXPECT_EQ(lines[14], "          + name");
    EXPECT_EQ(lines[15], "            and 59992 more");
}

TEST(WatchView, CountsTheSavesOfTheLastMinute) {
    WatchView view("cache");
    const Clock::time_point start;
    view.Add(First(), start);
    EXPECT_EQ(view.SavesInLastMinute(start), 0U);
    for (const int second : {1, 2, 30}) {
        view.Add(Update({"a"}), start + std::chrono::seconds(second));
    }
    EXPECT_EQ(view.SavesInLastMinute(start + std::chrono::seconds(30)), 3U);
    EXPECT_EQ(view.SavesInLastMinute(start + std::chrono::seconds(61)), 2U);
    EXPECT_EQ(view.SavesInLastMinute(start + std::chrono::seconds(600)), 0U);
}

TEST(WatchView, KeepsTheStateWhileThereIsAProblem) {
    WatchView view("cache");
    view.Add(Update({"a"}), Clock::time_point());
    WatchUpdate damaged;
    damaged.time = kTime;
    damaged.problem = "the file is damaged";
    view.Add(damaged, Clock::time_point());
    std::vector<std::string> lines = view.Lines(kTime, Clock::time_point(), 80, 24);
    EXPECT_EQ(lines[2], "effects  5 of 65534");
    EXPECT_EQ(lines[5], "the file is damaged");
    EXPECT_EQ(lines[6], "13:05:07  the file is damaged");
    EXPECT_EQ(view.SavesInLastMinute(Clock::time_point()), 1U);
    view.Add(Update({"b"}), Clock::time_point());
    lines = view.Lines(kTime, Clock::time_point(), 80, 24);
    EXPECT_EQ(lines[5], "");
}

TEST(WatchView, FitsIntoATerminalOfAnySize) {
    WatchView view("a long path that does not fit");
    view.Add(Update({"plain", "\xC3\xA4\xC3\xB6\xC3\xBC\xE4\xB8\xAD\xE6\x96\x87 wide"}),
             Clock::time_point());
    for (std::size_t columns = 1; columns < 60; ++columns) {
        for (std::size_t lines = 1; lines < 12; ++lines) {
            const auto drawn = view.Lines(kTime, Clock::time_point(), columns, lines);
            EXPECT_LE(drawn.size(), lines);
            for (const std::string& line : drawn) {
                EXPECT_LE(Width(line), columns);
            }
        }
    }
}

TEST(WatchView, CutsBetweenCharacters) {
    WatchView view("0123456789");
    const auto first = [&](std::size_t columns) {
        return view.Lines(kTime, Clock::time_point(), columns, 1)[0];
    };
    EXPECT_EQ(first(20), "13:05:07  0123456789");
    EXPECT_EQ(first(19), "13:05:07  012345...");
    WatchView wide("\xE4\xB8\xAD\xE6\x96\x87\xE4\xB8\xAD");
    EXPECT_EQ(wide.Lines(kTime, Clock::time_point(), 15, 1)[0], "13:05:07  \xE4\xB8\xAD...");
    EXPECT_EQ(wide.Lines(kTime, Clock::time_point(), 14, 1)[0], "13:05:07  ...");
}

}  // namespace
}  // namespace Quorvel::Tool
