// Runs the real program, with the platform's real compiler, on small effects.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <fstream>

#include "FailureOf.h"
#include "Pattern.h"
#include "ProgramFixture.h"
#include "Session.h"
#include "support/WorkingDirectory.h"

namespace EffectHost {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// An effect whose only variant has a name that is too long for the cache.
std::string EffectWithLongName() {
    std::string text;
    std::string axes;
    for (int i = 0; i < 70; ++i) {
        text += fmt::format("//@ axis A{} {}\n", i, std::string(1000, 'x'));
        axes += fmt::format(" A{}", i);
    }
    return text + "//@ program PixelMain ps_4_0" + axes +
           "\nfloat4 PixelMain() : SV_Target\n{\n    return 0.5;\n}\n";
}

// More variants than a test can wait for.
constexpr std::size_t kEndless = 3000;

TEST_F(Program, ASecondRunCompilesNothingAndGetsTheSameBytes) {
    const Summary cold = RunForSummary();
    EXPECT_EQ(cold.effects, kEffectVariants);
    EXPECT_EQ(cold.misses, kEffectVariants);
    EXPECT_EQ(cold.hits, 0u);
    EXPECT_EQ(cold.effectsInFile, kEffectVariants);
    EXPECT_GT(cold.compileTime, 0u);

    const Summary warm = RunForSummary({"--verify"});
    EXPECT_EQ(warm.misses, 0u);
    EXPECT_EQ(warm.hits, kEffectVariants);
    EXPECT_EQ(warm.verified, kEffectVariants);
    EXPECT_EQ(warm.compileTime, 0u);
    EXPECT_GT(warm.sparedTime, 0u);
    EXPECT_LE(warm.sparedTime, cold.compileTime);
}

TEST_F(Program, AStoreThatCannotBeReachedOnlyCostsTime) {
    const Result result = Run({"--share", "unix:///nothing/is/here", "--quiet"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, StartsWith("effecthost: the effects can't be shared: "));
    EXPECT_EQ(EffectsInFile(), kEffectVariants);
}

TEST_F(Program, EveryKnownProfileIsCompiled) {
    for (const char* profile : {"vs_4_0", "vs_4_1", "vs_5_0", "ps_4_0", "ps_4_1", "ps_5_0"}) {
        const char* semantic = profile[0] == 'v' ? "SV_Position" : "SV_Target";
        Write("shade.hlsl", fmt::format("//@ program Main {}\n"
                                        "float4 Main() : {} {{ return 0.0; }}\n",
                                        profile, semantic));
        EXPECT_EQ(RunForSummary().misses, 1u) << profile;
    }
}

TEST_F(Program, NamesContainTheCompilersIdentity) {
    const std::string identity = ShaderCompiler().Identity();
    EXPECT_TRUE(MatchesPattern("*-*-*-????????", identity)) << identity;
    EXPECT_THAT(FirstName(), HasSubstr(":" + identity + "-"));
    EXPECT_EQ(ShaderCompiler().Identity(), identity);
}

TEST_F(Program, AnEditedIncludeIsCompiledAgain) {
    RunForSummary();
    Write("tint.hlsli", "static const float tint = 0.25;\n");
    EXPECT_EQ(RunForSummary().misses, kEffectVariants);
}

TEST_F(Program, SeveralProcessesShareOneFile) {
    const Summary summary = RunForSummary({"--processes", "3", "--verify"});
    EXPECT_EQ(summary.processes, 3u);
    EXPECT_EQ(summary.hits + summary.misses, 3 * kEffectVariants);
    EXPECT_EQ(summary.effectsInFile, kEffectVariants);
    EXPECT_EQ(summary.verified, kEffectVariants);
    EXPECT_GE(summary.mostCompilations, 1u);
    EXPECT_LE(summary.mostCompilations, 3u);
    EXPECT_EQ(RunForSummary({"--processes", "2"}).hits, 2 * kEffectVariants);
}

TEST_F(Program, SeveralProcessesShowTheirCommonProgress) {
    const Result result = Run({"--processes", "2"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("6 of 6 effects"));
}

TEST_F(Program, SeveralProcessesMayStartAtAnyVariant) {
    const Summary summary = RunForSummary({"--processes", "3", "--start", "1000000"});
    EXPECT_EQ(summary.hits + summary.misses, 3 * kEffectVariants);
}

TEST_F(Program, TwoSpellingsOfADirectoryAtOnceShareOneCache) {
    WriteVariants(40);
    ChildProcess first = Start(cache_, {"--force-save", "1"});
    ChildProcess second = Start(effects_ / ".." / "cache", {"--force-save", "1"});
    EXPECT_EQ(Finish(first).exitCode, 0);
    EXPECT_EQ(Finish(second).exitCode, 0);
    EXPECT_EQ(RunForSummary({"--verify"}).hits, 40u);
}

TEST_F(Program, ADirectoryMayHaveSpacesAndNonAsciiLetters) {
    cache_ = folder_.Path() / u8"x h\u00f6hle";
    std::filesystem::create_directory(cache_);
    const auto listing = folder_.Path() / u8"l\u00e4nge.txt";
    EXPECT_EQ(RunForSummary({"--list", listing.string()}).misses, kEffectVariants);
    EXPECT_TRUE(std::filesystem::exists(cache_ / "vornFxoCache.dat"));
    EXPECT_TRUE(std::filesystem::exists(listing));
    EXPECT_EQ(RunForSummary({"--processes", "2"}).hits, 2 * kEffectVariants);
}

TEST_F(Program, TheEffectsFolderMayHaveSpacesAndNonAsciiLetters) {
    const auto renamed = folder_.Path() / u8"w \u00e4rme";
    std::filesystem::rename(effects_, renamed);
    effects_ = renamed;
    EXPECT_EQ(RunForSummary({"--processes", "2"}).effects, kEffectVariants);
}

TEST_F(Program, RelativePathsWork) {
    const Quorvel::Testing::WorkingDirectory inFolder(folder_.Path());
    effects_ = "effects";
    cache_ = "cache";
    EXPECT_EQ(RunForSummary({"--list", "list.txt"}).misses, kEffectVariants);
    EXPECT_TRUE(std::filesystem::exists("list.txt"));
    EXPECT_EQ(RunForSummary({"--processes", "2"}).hits, 2 * kEffectVariants);
}

TEST_F(Program, AnUnreachableDirectoryIsExitCode4) {
    std::ofstream(folder_.Path() / "file") << "text";
    for (const auto& cache : {folder_.Path() / "file", folder_.Path() / std::string(5000, 'x')}) {
        ChildProcess process = Start(cache);
        EXPECT_EQ(Finish(process).exitCode, 4);
    }
}

TEST_F(Program, AProcessThatIsAskedToStopSavesAndReturnsExitCode11) {
    WriteVariants(kEndless);
    ChildProcess process = Start(cache_, {"--worker"});
    ASSERT_TRUE(process.ReadLine());  // a line of progress
    process.RequestStop();
    const Result result = Finish(process);
    EXPECT_EQ(result.exitCode, 11);
    EXPECT_THAT(result.output, HasSubstr("effecthost: stopped after"));
    EXPECT_GT(EffectsInFile(), 0u);
    EXPECT_LT(EffectsInFile(), kEndless);
}

TEST_F(Program, ADamagedEffectIsCompiledAgainAndReplaced) {
    RunForSummary();
    Cache(FirstName(), {'n', 'o', 'n', 's', 'e', 'n', 's', 'e'});
    const Summary repairing = RunForSummary({"--verify"});
    EXPECT_EQ(repairing.damaged, 1u);
    EXPECT_EQ(repairing.misses, 0u);
    EXPECT_EQ(repairing.hits, kEffectVariants - 1);
    EXPECT_EQ(repairing.verified, kEffectVariants);
    const Summary repaired = RunForSummary();
    EXPECT_EQ(repaired.damaged, 0u);
    EXPECT_EQ(repaired.hits, kEffectVariants);
}

TEST_F(Program, VerificationFindsBytesThatDifferFromTheCompilers) {
    const std::string name = FirstName();
    Cache(name, PackCachedEffect(name, {1, {1, 2, 3}}));
    const Result result = Run({"--verify", "--quiet"});
    EXPECT_EQ(result.exitCode, 7);
    EXPECT_THAT(result.output, StartsWith("effecthost: the cache returns other bytes"));
    EXPECT_THAT(result.output, HasSubstr(name));
}

TEST_F(Program, TheListingMarksPermanentEffects) {
    const std::filesystem::path listing = folder_.Path() / "list.txt";
    RunForSummary({"--permanent", "*SHADE=1*", "--list", listing.string()});
    std::ifstream file(listing);
    std::string line;
    std::size_t lines = 0;
    while (std::getline(file, line)) {
        ++lines;
        EXPECT_THAT(line, StartsWith("Name: shade.hlsl:PixelMain:ps_4_0:SHADE="));
        const char* permanent = line.find("SHADE=1") != line.npos ? "Permanent: 1" : "Permanent: 0";
        EXPECT_THAT(line, HasSubstr(permanent));
    }
    EXPECT_EQ(lines, kEffectVariants);
}

TEST_F(Program, EffectsThatWereCachedBeforeBecomePermanentOnce) {
    const std::filesystem::path listing = folder_.Path() / "list.txt";
    RunForSummary();
    const Summary marking = RunForSummary({"--permanent", "*", "--list", listing.string()});
    EXPECT_EQ(marking.misses, 0u);
    EXPECT_EQ(marking.madePermanent, kEffectVariants);
    const std::string text = TextOf(listing);
    EXPECT_THAT(text, HasSubstr("Permanent: 1"));
    EXPECT_THAT(text, Not(HasSubstr("Permanent: 0")));
    EXPECT_EQ(RunForSummary({"--permanent", "*"}).madePermanent, 0u);
}

TEST_F(Program, AListingThatWouldOverwriteTheCacheIsExitCode2AndHarmless) {
    RunForSummary();
    const std::filesystem::path file = cache_ / "vornFxoCache.dat";
    for (const auto& listing : {file, cache_ / ".." / "cache" / "vornFxoCache.dat"}) {
        const Result result = Run({"--list", listing.string()});
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_THAT(result.output, HasSubstr("would overwrite the cache"));
    }
    EXPECT_EQ(RunForSummary().hits, kEffectVariants);
}

TEST_F(Program, AListingWithTheNameOfTheCacheFileIsExitCode2AndMakesNoFile) {
    const std::filesystem::path file = cache_ / "vornFxoCache.dat";
    EXPECT_EQ(Run({"--list", file.string()}).exitCode, 2);
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(Program, AnUnwritableListingIsReportedBeforeAnythingIsCompiled) {
    const Result result = Run({"--list", (folder_.Path() / "none" / "list.txt").string()});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.output, StartsWith("effecthost: can't write the listing"));
    EXPECT_FALSE(std::filesystem::exists(cache_ / "vornFxoCache.dat"));
}

TEST_F(Program, AnEffectThatTheCacheRefusesIsExitCode6AfterTheSummary) {
    Write("long.hlsl", EffectWithLongName().c_str());
    for (const std::vector<std::string>& more :
         {std::vector<std::string>{}, {"--verify"}, {"--processes", "2"}}) {
        const Result result = Run(more);
        EXPECT_EQ(result.exitCode, 6);
        EXPECT_THAT(result.output, HasSubstr("effects    4 from 2 sources, 3 in the cache file"));
        EXPECT_THAT(result.output, HasSubstr("the cache file does not hold 1 of 4 effects"));
        EXPECT_THAT(result.output, HasSubstr("names over 65536 bytes"));
        EXPECT_LT(result.output.size(), 2000u);
    }
}

TEST_F(Program, ASessionThatFindsNoEffectsInTheCacheReportsThatAndVerifiesNothing) {
    Options options;
    options.cacheDirectory = FindCacheDirectory(cache_);
    const EffectLibrary library = LoadEffectLibrary(effects_);
    const ShaderCompiler compiler;
    Session session(options, library, compiler);
    EXPECT_THAT(FailureOf(ExitCode::UnusableCache, [&] { session.RequireAllSaved(); }),
                HasSubstr("does not hold 3 of 3 effects"));
    EXPECT_THAT(FailureOf(ExitCode::UnusableCache, [&] { session.Verify(20); }),
                HasSubstr("only 0 of 3 effects could be verified"));
}

TEST_F(Program, AnEffectOverAMebibyteIsNotInTheCache) {
    HostCache cache(FindCacheDirectory(cache_));
    cache.Store("large", {1, Bytes(1048576 - 31), false});  // plus a header of 32 bytes
    cache.Store("largest", {1, Bytes(1048576 - 32), false});
    CachedEffect effect;
    EXPECT_EQ(cache.Find("large", effect), HostCache::Result::Missing);
    EXPECT_EQ(cache.Find("largest", effect), HostCache::Result::Found);
}

TEST_F(Program, QuietPrintsNothing) {
    EXPECT_EQ(Run({"--quiet"}).output, "");
}

TEST_F(Program, PlainOutputShowsProgressAndASummary) {
    const Result result = Run();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("3 of 3 effects, 3 compiled"));
    EXPECT_THAT(result.output, HasSubstr("effects    3 from 1 sources, 3 in the cache file"));
}

TEST_F(Program, HelpExplainsTheExitCodes) {
    const Result result = RunWith({"--help"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("Exit codes:"));
}

TEST_F(Program, ABadCommandLineIsExitCode2) {
    const Result result = RunWith({});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.output, StartsWith("effecthost: --cache is required"));
}

TEST_F(Program, AMissingEffectsFolderIsExitCode3) {
    const Result result =
        RunWith({"--cache", cache_.string(), "--effects", (folder_.Path() / "none").string()});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_THAT(result.output, HasSubstr("can't read the effects folder"));
}

TEST_F(Program, AMissingCacheDirectoryIsExitCode4AndMakesNoFile) {
    const std::filesystem::path none = folder_.Path() / "none";
    const Result result = RunWith({"--cache", none.string(), "--effects", effects_.string()});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_THAT(result.output, StartsWith("effecthost: there is no cache directory"));
    EXPECT_FALSE(std::filesystem::exists(none));
}

TEST_F(Program, AnEffectThatDoesNotCompileIsExitCode5WithItsLocation) {
    Write("broken.hlsl",
          "//@ axis DEPTH 1 2\n//@ program BrokenMain ps_4_0 DEPTH\n"
          "float4 BrokenMain() : SV_Target\n{\n    return unheardOf;\n}\n");
    const Result result = Run();
    EXPECT_EQ(result.exitCode, 5);
    EXPECT_THAT(result.output, HasSubstr("broken.hlsl does not compile: entry point BrokenMain, "
                                         "profile ps_4_0, macros DEPTH=1"));
    EXPECT_THAT(result.output, HasSubstr("unheardOf"));
    EXPECT_THAT(result.output, HasSubstr(":5:"));
}

TEST_F(Program, KeepGoingCachesEverythingElseAndReturnsExitCode5AfterTheSummary) {
    Write("broken.hlsl",
          "//@ axis DEPTH 1 2\n//@ program BrokenMain ps_4_0 DEPTH\n"
          "float4 BrokenMain() : SV_Target\n{\n    return unheardOf;\n}\n");
    for (const std::vector<std::string>& more :
         {std::vector<std::string>{"--processes", "2"}, {"--verify"}, {}}) {
        std::vector<std::string> arguments = {"--keep-going"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Result result = Run(arguments);
        EXPECT_EQ(result.exitCode, 5);
        EXPECT_THAT(result.output, HasSubstr("effects    5 from 2 sources, 3 in the cache file"));
        EXPECT_THAT(result.output, HasSubstr("broken     2 do not compile"));
        EXPECT_THAT(result.output, HasSubstr("effecthost: 2 of 5 effects do not compile"));
        EXPECT_THAT(result.output, HasSubstr("broken.hlsl does not compile: entry point"));
        EXPECT_EQ(result.output.find("unheardOf"), result.output.rfind("unheardOf"));
    }
    std::filesystem::remove(effects_ / "broken.hlsl");
    EXPECT_EQ(RunForSummary({"--keep-going"}).hits, kEffectVariants);
}

TEST_F(Program, EffectsCompiledBySeveralProcessesAtOnceGiveNoFactor) {
    RunForSummary({"--processes", "2"});
    const Result warm = Run();
    EXPECT_THAT(warm.output, HasSubstr("several processes at once compiled 3 of 3 effects"));
    EXPECT_THAT(warm.output, Not(HasSubstr("faster")));
}

TEST_F(Program, AProfileThatTheCompilerDoesNotKnowIsExitCode5) {
    for (const char* profile : {"zs_9_9", "ps_9_7", "ps_4", "cs_5_0", "gs_4_0"}) {
        Write("strange.hlsl", fmt::format("//@ program Main {}\n"
                                          "float4 Main() : SV_Target {{ return 0.0; }}\n",
                                          profile));
        const Result result = Run();
        EXPECT_EQ(result.exitCode, 5) << profile;
        EXPECT_THAT(result.output, HasSubstr("the profile is not one of vs_4_0"));
    }
}

TEST_F(Program, ACacheFileThatCannotBeOpenedIsExitCode6) {
    std::filesystem::create_directory(cache_ / "vornFxoCache.dat");
    const Result result = Run();
    EXPECT_EQ(result.exitCode, 6);
    EXPECT_THAT(result.output, HasSubstr("can't be used"));
}

TEST_F(Program, SeveralProcessesPassOnTheExitCodeOfTheOneThatFailed) {
    Write("broken.hlsl", "//@ program Main ps_4_0\nfloat4 Main() : SV_Target { return wat; }\n");
    const Result result = Run({"--processes", "2"});
    EXPECT_EQ(result.exitCode, 5);
    EXPECT_THAT(result.output, HasSubstr("effecthost: process 1 of 2 ended with exit code 5: "
                                         "broken.hlsl does not compile"));
    EXPECT_EQ(result.output.find("does not compile"), result.output.rfind("does not compile"));
}

TEST(Processes, AMissingProgramCannotBeStarted) {
    const auto none = ExecutablePath().parent_path() / "no-such-program";
    EXPECT_THAT(FailureOf(ExitCode::ProcessFailed, [&] { ChildProcess process(none, {}); }),
                HasSubstr("no-such-program"));
}

}  // namespace
}  // namespace EffectHost
