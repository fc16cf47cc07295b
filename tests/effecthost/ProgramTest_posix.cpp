// Situations that only a POSIX system can create at will.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include "ProgramFixture.h"

namespace EffectHost {
namespace {

using ::testing::HasSubstr;

constexpr std::size_t kManyVariants = 60;

// More variants than a test can wait for.
constexpr std::size_t kEndlessEffects = 1000;

class PosixProgram : public Program {
protected:
    // Runs the program through a shell command that runs "$@".
    Result RunBehind(const std::string& shellLine,
                     const std::vector<std::string>& more = {}) const {
        std::vector<std::string> words{
            "-c",      shellLine,       "sh",        ProgramPath().string(),
            "--cache", cache_.string(), "--effects", effects_.string()};
        words.insert(words.end(), more.begin(), more.end());
        return RunOther("/bin/sh", words);
    }

    // True if a child process may mount volumes in its own namespace.
    bool MayMount() const {
        return RunOther("/bin/sh",
                        {"-c", "unshare -rm mount -t tmpfs none \"$0\"", cache_.string()})
                   .exitCode == 0;
    }

    // Runs the program with a volume of this size in KiB as its cache directory.
    Result RunOnSmallVolume(int size, const std::vector<std::string>& more) const {
        return RunBehind(
            fmt::format("exec unshare -rm sh -c 'mount -t tmpfs -o size={}k none {} && "
                        "exec \"$@\"' sh \"$@\"",
                        size, cache_.string()),
            more);
    }
};

TEST_F(PosixProgram, AVolumeWithoutRoomIsExitCode6AfterTheSummary) {
    if (!MayMount()) { GTEST_SKIP() << "this system does not allow mounting a small volume"; }
    WriteVariants(kManyVariants);
    for (const std::vector<std::string>& more :
         {std::vector<std::string>{}, {"--verify"}, {"--force-save", "1"}, {"--processes", "2"}}) {
        const Result result = RunOnSmallVolume(84, more);
        EXPECT_EQ(result.exitCode, 6) << result.output;
        EXPECT_THAT(result.output, HasSubstr("effects    60 from 1 sources"));
        EXPECT_THAT(result.output, HasSubstr("the cache file does not hold"));
        EXPECT_THAT(result.output, HasSubstr("The volume may have no room"));
    }
}

TEST_F(PosixProgram, AFileThatCannotGrowIsExitCode6) {
    WriteVariants(4 * kManyVariants);
    const Result result =
        RunBehind("trap '' XFSZ; ulimit -f 200; exec \"$@\"", {"--force-save", "5"});
    EXPECT_EQ(result.exitCode, 6);
    EXPECT_THAT(result.output, HasSubstr("saving failed; is the disk full"));
    EXPECT_GT(RunForSummary().hits, 0u);  // what was saved before
}

TEST_F(PosixProgram, AKilledProcessIsExitCode8) {
    const Result result = RunBehind("ulimit -f 0; exec \"$@\"", {"--processes", "2"});
    EXPECT_EQ(result.exitCode, 8);
    EXPECT_THAT(result.output, HasSubstr(fmt::format("was killed by signal {}", SIGXFSZ)));
    EXPECT_EQ(RunForSummary().misses, kEffectVariants);
}

TEST_F(PosixProgram, AnInterruptSavesWhatWasCompiledAndIsExitCode11) {
    WriteVariants(kEndlessEffects);
    for (const char* processes : {"1", "2"}) {
        ChildProcess process = Start(cache_, {"--processes", processes, "--force-save", "0"});
        while (process.ReadLine().value().find("compiled") == std::string::npos) {}
        kill(static_cast<pid_t>(process.Id()), SIGINT);
        const Result result = Finish(process);
        EXPECT_EQ(result.exitCode, 11);
        EXPECT_THAT(result.output, HasSubstr("stopped"));
        EXPECT_GT(EffectsInFile(), 0u);
        EXPECT_LT(EffectsInFile(), kEndlessEffects);
    }
}

TEST_F(PosixProgram, OutputToClosedStreamsDoesNotReachTheCache) {
    EXPECT_EQ(RunBehind("exec \"$@\" <&- >&- 2>&-").exitCode, 0);
    EXPECT_EQ(RunForSummary({"--verify"}).hits, kEffectVariants);
    EXPECT_EQ(RunBehind("exec \"$@\" <&- >&- 2>&-", {"--processes", "2"}).exitCode, 0);
    EXPECT_EQ(RunForSummary({"--verify"}).hits, kEffectVariants);
}

TEST_F(PosixProgram, AReaderThatClosesThePipeDoesNotEndTheRun) {
    const Result result = RunBehind("(sleep 0.2; \"$@\"; echo code $? >&2) | true");
    EXPECT_THAT(result.output, HasSubstr("can't write the output"));
    EXPECT_THAT(result.output, HasSubstr("code 10"));
    EXPECT_EQ(RunForSummary().hits, kEffectVariants);
}

TEST_F(PosixProgram, ALinkToADirectoryAndTheDirectoryAtOnceShareOneCache) {
    WriteVariants(40);
    const auto link = folder_.Path() / "link";
    std::filesystem::create_directory_symlink(cache_, link);
    ChildProcess first = Start(cache_, {"--force-save", "1"});
    ChildProcess second = Start(link, {"--force-save", "1"});
    EXPECT_EQ(Finish(first).exitCode, 0);
    EXPECT_EQ(Finish(second).exitCode, 0);
    EXPECT_EQ(RunForSummary({"--verify"}).hits, 40u);
}

TEST_F(PosixProgram, ALinkToItselfIsExitCode4) {
    const auto loop = folder_.Path() / "loop";
    std::filesystem::create_symlink(loop, loop);
    ChildProcess process = Start(loop);
    const Result result = Finish(process);
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_THAT(result.output, HasSubstr("can't use the cache directory"));
}

TEST_F(PosixProgram, APipeNamedLikeAnEffectIsExitCode3) {
    ASSERT_EQ(mkfifo((effects_ / "pipe.hlsl").c_str(), 0600), 0);
    EXPECT_EQ(Run().exitCode, 3);
}

TEST_F(PosixProgram, LostOutputIsExitCode10) {
    const Result result = RunBehind("exec \"$@\" >/dev/full");
    EXPECT_EQ(result.exitCode, 10);
    EXPECT_THAT(result.output, HasSubstr("can't write the output"));
    EXPECT_EQ(RunForSummary().hits, kEffectVariants);
}

TEST_F(PosixProgram, ALostListingIsExitCode10AfterTheSummary) {
    const Result result = Run({"--list", "/dev/full"});
    EXPECT_EQ(result.exitCode, 10);
    EXPECT_THAT(result.output, HasSubstr("misses     3"));
    EXPECT_THAT(result.output, HasSubstr("can't write the listing /dev/full"));
}

TEST_F(PosixProgram, ALinkToTheCacheIsRefusedForAListing) {
    RunForSummary();
    const auto link = folder_.Path() / "link";
    std::filesystem::create_symlink(cache_ / "vornFxoCache.dat", link);
    EXPECT_EQ(Run({"--list", link.string()}).exitCode, 2);
    EXPECT_EQ(RunForSummary().hits, kEffectVariants);
}

}  // namespace
}  // namespace EffectHost
