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
    summary.broken = {{2, "a.hlsl does not compile: x\nwat"}};
    return summary;
}

TEST(Summary, JsonIsOneLineAndKeepsEverything) {
    const Summary summary = SomeSummary();
    const std::string line = ToJson(summary);
    EXPECT_EQ(line.find('\n'), line.npos);
    EXPECT_EQ(ToJson(FromJson(line)), line);
    const Summary back = FromJson(line);
    EXPECT_EQ(back.sparedTime, 3000u);
    EXPECT_EQ(back.compiledEffects, summary.compiledEffects);
    EXPECT_EQ(back.broken, summary.broken);
}

TEST(Summary, TextThatIsNotASummaryIsRefused) {
    EXPECT_THROW(FromJson(""), std::exception);
    EXPECT_THROW(FromJson("{}"), std::exception);
}

TEST(Summary, ProcessesAddUpAndTheMostCompiledEffectIsCounted) {
    Summary sum;
    Summary process = SomeSummary();
    AddProcess(sum, process);
    process.compiledEffects = {4, 2};
    process.broken = {{2, "the same"}, {3, "another"}};
    AddProcess(sum, process);
    EXPECT_EQ(sum.hits, 6u);
    EXPECT_EQ(sum.misses, 2u);
    EXPECT_EQ(sum.damaged, 2u);
    EXPECT_EQ(sum.compileTime, 120u);
    EXPECT_EQ(sum.CacheTime(), 12u);
    EXPECT_EQ(sum.sparedTime, 6000u);
    EXPECT_EQ(sum.mostCompilations, 2u);
    EXPECT_EQ(sum.broken.size(), 2u);
}

// The summary of a single process that found every effect.
Summary WarmSummary() {
    Summary summary = SomeSummary();
    summary.hits = summary.effects;
    summary.misses = 0;
    summary.damaged = 0;
    summary.compileTime = 0;
    return summary;
}

TEST(Summary, AWarmRunReportsHowMuchFasterTheCacheWasThanCompiling) {
    EXPECT_THAT(ToText(WarmSummary()), HasSubstr("3 us, 1000 times faster than compiling"));
}

TEST(Summary, VerifyingAndStoringDoNotMakeTheCacheLookSlower) {
    Summary summary = WarmSummary();
    summary.checkTime = 1000000;
    summary.storeTime = 1000000;
    EXPECT_THAT(ToText(summary), HasSubstr("1000 times faster than compiling"));
}

TEST(Summary, TheTextMakesNoComparisonAfterCompilingOrForSeveralProcesses) {
    EXPECT_THAT(ToText(SomeSummary()), Not(HasSubstr("faster")));
    Summary summary = WarmSummary();
    summary.processes = 2;
    EXPECT_THAT(ToText(summary), Not(HasSubstr("faster")));
}

TEST(Summary, TheTextMakesNoComparisonWithTimesOfProcessesThatSlowedEachOtherDown) {
    Summary summary = WarmSummary();
    summary.untimed = 1;
    const std::string text = ToText(summary);
    EXPECT_THAT(text, HasSubstr("several processes at once compiled 1 of 5 effects"));
    EXPECT_THAT(text, Not(HasSubstr("faster")));
}

TEST(Summary, BrokenEffectsWithTheSameMessageAreShownOnce) {
    Summary summary = SomeSummary();
    summary.broken = {{1, "a.hlsl does not compile: macros A=1\nwat"},
                      {2, "a.hlsl does not compile: macros A=2\nwat"},
                      {3, "b.hlsl does not compile: no macros\nhm"}};
    EXPECT_EQ(BrokenText(summary),
              "3 of 5 effects do not compile\na.hlsl does not compile: macros A=1\nwat\n"
              "b.hlsl does not compile: no macros\nhm");
    EXPECT_THAT(ToText(summary), HasSubstr("broken     3 do not compile\n"));
}

TEST(Summary, TheTimesOfARunAddUp) {
    Summary summary = SomeSummary();
    summary.checkTime = 14;
    const std::string text = ToText(summary);
    EXPECT_THAT(text, HasSubstr("compiling  60 us\n"));
    EXPECT_THAT(text, HasSubstr("cache      6 us"));
    EXPECT_THAT(text, HasSubstr("checking   14 us\n"));
    EXPECT_THAT(text, HasSubstr("other      20 us\n"));
    EXPECT_THAT(text, HasSubstr("run        100 us\n"));
}

TEST(Summary, TheTextSaysHowOftenAnEffectWasCompiled) {
    Summary summary = SomeSummary();
    summary.processes = 3;
    EXPECT_THAT(ToText(summary), HasSubstr("no effect more than once\n"));
    summary.mostCompilations = 2;
    EXPECT_THAT(ToText(summary), HasSubstr("no effect more than twice\n"));
    summary.mostCompilations = 3;
    EXPECT_THAT(ToText(summary), HasSubstr("no effect more than 3 times\n"));
    summary.mostCompilations = 0;
    EXPECT_THAT(ToText(summary), Not(HasSubstr("no effect more")));
}

TEST(Summary, TimesAreFormattedWithASuitableUnit) {
    EXPECT_EQ(FormatTime(999), "999 us");
    EXPECT_EQ(FormatTime(12345), "12.3 ms");
    EXPECT_EQ(FormatTime(999949), "999.9 ms");
    EXPECT_EQ(FormatTime(999950), "1.00 s");
    EXPECT_EQ(FormatTime(9080000), "9.08 s");
}

}  // namespace
}  // namespace EffectHost
