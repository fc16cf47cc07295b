#include "Options.h"

#include <gmock/gmock.h>

#include <sstream>

#include "FailureOf.h"

namespace EffectHost {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::optional<Options> Parse(std::vector<const char*> arguments, std::ostream& out) {
    arguments.insert(arguments.begin(), "effecthost");
    return ParseOptions(static_cast<int>(arguments.size()), arguments.data(), "default", out);
}

Options Parse(const std::vector<const char*>& arguments) {
    std::ostringstream out;
    return Parse(arguments, out).value();
}

TEST(Options, TheCacheDirectoryAloneIsEnough) {
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

TEST(Options, OptionalNumbersHaveAValueWhenLeftOut) {
    const Options options = Parse({"--cache", "c", "--verify", "--force-save"});
    EXPECT_EQ(options.verify, 20u);
    EXPECT_EQ(options.saveEvery, 1u);
    const Options given = Parse({"--cache", "c", "--verify", "5", "--force-save", "0"});
    EXPECT_EQ(given.verify, 5u);
    EXPECT_EQ(given.saveEvery, 0u);
}

TEST(Options, SeveralProcessesSaveOftenUnlessTold) {
    EXPECT_EQ(Parse({"--cache", "c", "--processes", "4"}).saveEvery, 16u);
    EXPECT_EQ(Parse({"--cache", "c", "--processes", "4", "--force-save", "3"}).saveEvery, 3u);
}

TEST(Options, PermanentPatternsAddUp) {
    EXPECT_THAT(Parse({"--cache", "c", "--permanent", "a*", "--permanent", "b"}).permanent,
                ElementsAre("a*", "b"));
}

TEST(Options, HelpIsPrintedAndEndsTheRun) {
    std::ostringstream out;
    EXPECT_FALSE(Parse({"--help"}, out));
    for (const char* word : {"--cache", "--effects", "--processes", "--force-save", "--list",
                             "--permanent", "--verify", "--quiet", "--json", "Exit codes"}) {
        EXPECT_THAT(out.str(), HasSubstr(word));
    }
}

TEST(Options, BadCommandLinesAreRefused) {
    const std::vector<std::vector<const char*>> lines = {
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
        {"--cache", "c", "--force-save", "1.5"},
    };
    for (const auto& line : lines) {
        SCOPED_TRACE(::testing::PrintToString(line));
        std::ostringstream out;
        FailureOf(ExitCode::BadUsage, [&] { Parse(line, out); });
    }
}

TEST(Options, AWorkerGetsTheSameWorkWithItsOwnStart) {
    std::vector<const char*> line{"--cache", "c",           "--effects", "e",       "--processes",
                                  "2",       "--permanent", "p*",        "--verify"};
    const std::vector<std::string> words = WorkerArguments(Parse(line), 7);
    std::vector<const char*> pointers;
    pointers.reserve(words.size());
    for (const std::string& word : words) {
        pointers.push_back(word.c_str());
    }
    const Options worker = Parse(pointers);
    EXPECT_EQ(worker.cacheDirectory, "c");
    EXPECT_EQ(worker.effectsFolder, "e");
    EXPECT_EQ(worker.processes, 1u);
    EXPECT_EQ(worker.start, 7u);
    EXPECT_EQ(worker.saveEvery, 16u);
    EXPECT_THAT(worker.permanent, ElementsAre("p*"));
    EXPECT_TRUE(worker.worker);
    EXPECT_EQ(worker.verify, 0u);
}

}  // namespace
}  // namespace EffectHost
