#include "Options.h"

#include <gmock/gmock.h>

#include <sstream>

#include "FailureOf.h"

namespace EffectHost {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

std::optional<Options> Parse(std::vector<std::string> words, std::ostream& out) {
    words.insert(words.begin(), "effecthost");
    return ParseOptions(words, "default", out);
}

Options Parse(const std::vector<std::string>& words) {
    std::ostringstream out;
    return Parse(words, out).value();
}

TEST(Options, OnlyTheCacheDirectoryIsRequired) {
    const Options options = Parse({"--cache", "there"});
    EXPECT_EQ(options.cacheDirectory, "there");
    EXPECT_EQ(options.effectsFolder, "default");
    EXPECT_EQ(options.processes, 1u);
    EXPECT_EQ(options.saveEvery, 0u);
    EXPECT_EQ(options.verify, 0u);
    EXPECT_TRUE(options.listing.empty());
    EXPECT_FALSE(options.quiet);
    EXPECT_FALSE(options.json);
}

TEST(Options, OptionalNumbersHaveADefault) {
    const Options options = Parse({"--cache", "c", "--verify", "--force-save"});
    EXPECT_EQ(options.verify, 20u);
    EXPECT_EQ(options.saveEvery, 1u);
    const Options given = Parse({"--cache", "c", "--verify", "5", "--force-save", "0"});
    EXPECT_EQ(given.verify, 5u);
    EXPECT_EQ(given.saveEvery, 0u);
}

TEST(Options, SeveralProcessesSaveOftenByDefault) {
    EXPECT_EQ(Parse({"--cache", "c", "--processes", "4"}).saveEvery, 16u);
    EXPECT_EQ(Parse({"--cache", "c", "--processes", "4", "--force-save", "3"}).saveEvery, 3u);
}

TEST(Options, PermanentPatternsAccumulate) {
    EXPECT_THAT(Parse({"--cache", "c", "--permanent", "a*", "--permanent", "b"}).permanent,
                ElementsAre("a*", "b"));
}

TEST(Options, HelpIsPrintedAndEndsTheRun) {
    std::ostringstream out;
    EXPECT_FALSE(Parse({"--help"}, out));
    for (const char* word :
         {"--cache", "--share", "--effects", "--processes", "--force-save", "--list", "--permanent",
          "--keep-going", "--version", "--verify", "--quiet", "--json", "Exit codes"}) {
        EXPECT_THAT(out.str(), HasSubstr(word));
    }
}

TEST(Options, TheVersionIsPrintedAndEndsTheRun) {
    std::ostringstream out;
    EXPECT_FALSE(Parse({"--version"}, out));
    EXPECT_THAT(out.str(), MatchesRegex("effecthost .+\\..+\\..+\n"));
}

TEST(Options, AnUnknownOptionIsNamedWhateverElseIsMissing) {
    const std::vector<std::vector<std::string>> lines = {
        {"--wat"}, {"--cache", "c", "--wat"}, {"stray", "--wat", "7"}, {"--wat=7"}};
    for (const auto& line : lines) {
        EXPECT_THAT(FailureOf(ExitCode::BadUsage, [&] { Parse(line); }),
                    StartsWith("unknown option --wat"));
    }
    EXPECT_THAT(FailureOf(ExitCode::BadUsage,
                          [] {
                              Parse({"--cache", "c", "stray"});
                          }),
                StartsWith("unknown argument stray"));
}

TEST(Options, BadCommandLinesAreRefused) {
    const std::vector<std::vector<std::string>> lines = {
        {},
        {"--cache"},
        {"--cache", "c", "--wat"},
        {"--cache", "c", "stray"},
        {"--cache", "c", "--processes", "0"},
        {"--cache", "c", "--processes", "65"},
        {"--cache", "c", "--processes", "many"},
        {"--cache", "c", "--start", "-1"},
        {"--cache", "c", "--verify", "-1"},
        {"--cache", "c", "--verify", "lots"},
        {"--cache", "c", "--verify", "1000000000"},
        {"--cache", "c", "--force-save", "1.5"},
    };
    for (const auto& line : lines) {
        SCOPED_TRACE(::testing::PrintToString(line));
        std::ostringstream out;
        FailureOf(ExitCode::BadUsage, [&] { Parse(line, out); });
    }
}

TEST(Options, AWordThatIsNotANumberIsNamedInAShortMessage) {
    const std::string message = FailureOf(ExitCode::BadUsage, [] {
        Parse({"--cache", "c", "--verify", "abc"});
    });
    EXPECT_THAT(message, HasSubstr("abc is not a whole number"));
    EXPECT_LT(message.size(), 100u);
}

TEST(Options, AWorkerGetsTheSameWorkWithADifferentStart) {
    const Options options = Parse({"--cache", "c", "--effects", "e", "--processes", "2",
                                   "--permanent", "p*", "--verify", "--list", "l", "--keep-going"});
    const Options worker = Parse(WorkerArguments(options, 7));
    EXPECT_EQ(worker.cacheDirectory, "c");
    EXPECT_EQ(worker.effectsFolder, "e");
    EXPECT_EQ(worker.processes, 1u);
    EXPECT_EQ(worker.start, 7u);
    EXPECT_EQ(worker.saveEvery, 16u);
    EXPECT_THAT(worker.permanent, ElementsAre("p*"));
    EXPECT_TRUE(worker.worker);
    EXPECT_TRUE(worker.keepGoing);
    EXPECT_EQ(worker.verify, 0u);
    EXPECT_TRUE(worker.listing.empty());
}

}  // namespace
}  // namespace EffectHost
