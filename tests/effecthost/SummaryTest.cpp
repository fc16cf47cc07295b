#include "Summary.h"

#include <gmock/gmock.h>

namespace EffectHost {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

Summary SomeSummary() {
    Summary summary;
    summary.sources = 2;
    summary.effects = 5;
    summary.hits = 3;
    summary.misses = 1;
    summary.damaged = 1;
    summary.verified = 4;
    summary.effectsInFile = 6;
    summary.mostCompilations = 1;
    summary.wallTime = 100;
    summary.compileTime = 60;
    summary.openTime = 1;
    summary.searchTime = 2;
    summary.storeTime = 3;
    summary.sparedTime = 3000;
    summary.compiledEffects = {0, 4};
    return summary;
}

TEST(Summary, JsonIsOneLineAndBringsEverythingBack) {
    const Summary summary = SomeSummary();
    const std::string line = ToJson(summary);
    EXPECT_EQ(line.find('\n'), line.npos);
    EXPECT_EQ(ToJson(FromJson(line)), line);
    const Summary back = FromJson(line);
    EXPECT_EQ(back.sparedTime, 3000u);
    EXPECT_EQ(back.compiledEffects, summary.compiledEffects);
}

TEST(Summary, TextThatIsNoSummaryIsRefused) {
    EXPECT_THROW(FromJson(""), std::exception);
    EXPECT_THROW(FromJson("{}"), std::exception);
}

TEST(Summary, ProcessesAddUpAndTheMostCompiledEffectIsCounted) {
    Summary sum;
    Summary process = SomeSummary();
    AddProcess(sum, process);
    process.compiledEffects = {4, 2};
    AddProcess(sum, process);
    EXPECT_EQ(sum.hits, 6u);
    EXPECT_EQ(sum.misses, 2u);
    EXPECT_EQ(sum.damaged, 2u);
    EXPECT_EQ(sum.compileTime, 120u);
    EXPECT_EQ(sum.CacheTime(), 12u);
    EXPECT_EQ(sum.sparedTime, 6000u);
    EXPECT_EQ(sum.mostCompilations, 2u);
}

TEST(Summary, TheTextComparesWhatWasSparedWithTheTimeInTheCache) {
    EXPECT_THAT(ToText(SomeSummary()), HasSubstr("500.0 times the time in the cache"));
}

TEST(Summary, TheTextComparesNothingWithoutHitsOrForSeveralProcesses) {
    Summary summary = SomeSummary();
    summary.processes = 2;
    EXPECT_THAT(ToText(summary), Not(HasSubstr("times the time")));
    summary = SomeSummary();
    summary.hits = 0;
    EXPECT_THAT(ToText(summary), Not(HasSubstr("times the time")));
}

TEST(Summary, TimesAreWrittenInTheUnitThatFits) {
    EXPECT_EQ(FormatTime(999), "999 us");
    EXPECT_EQ(FormatTime(12345), "12.3 ms");
    EXPECT_EQ(FormatTime(9080000), "9.08 s");
}

}  // namespace
}  // namespace EffectHost
