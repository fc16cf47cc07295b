// Runs the real program, with the platform's real compiler, on small effects.
#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

#include "CachedEffect.h"
#include "EffectLibrary.h"
#include "FailureOf.h"
#include "Processes.h"
#include "ShaderCompiler.h"
#include "Summary.h"
#include "quorvel/EffectCacheSystem.h"
#include "support/TemporaryDirectory.h"
#include "vornutil/RefPtr.h"

namespace EffectHost {
namespace {

using Quorvel::Testing::TemporaryDirectory;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kEffect =
    "//@ axis SHADE 0 1 2\n"
    "//@ program PixelMain ps_4_0 SHADE\n"
    "#include \"tint.hlsli\"\n"
    "float4 PixelMain() : SV_Target\n"
    "{\n"
    "    return float4(tint, float(SHADE), 0.0, 1.0);\n"
    "}\n";
constexpr std::size_t kEffectVariants = 3;

class Program : public ::testing::Test {
protected:
    struct Result {
        int exitCode;
        std::string output;  // and errors
    };

    Program() {
        std::filesystem::create_directory(effects_);
        std::filesystem::create_directory(cache_);
        Write("shade.hlsl", kEffect);
        Write("tint.hlsli", "static const float tint = 0.5;\n");
    }

    void Write(const char* name, const char* text) {
        std::ofstream(effects_ / name, std::ios::binary) << text;
    }

    static Result RunWith(const std::vector<std::string>& arguments) {
        const std::filesystem::path self = ExecutablePath();
        std::filesystem::path program = self.parent_path() / "effecthost";
        program.replace_extension(self.extension());
        ChildProcess process(program, arguments, ChildProcess::Errors::Captured);
        const std::string output = process.ReadOutput();
        return {process.Wait(), output};
    }

    Result Run(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> arguments{"--cache", cache_.string(), "--effects",
                                           effects_.string()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return RunWith(arguments);
    }

    Summary RunForSummary(std::vector<std::string> more = {}) const {
        more.push_back("--json");
        const Result result = Run(more);
        EXPECT_EQ(result.exitCode, 0) << result.output;
        return result.exitCode == 0 ? FromJson(result.output) : Summary{};
    }

    // The name of the first variant, as the program makes it.
    std::string FirstName() const {
        return EffectName(LoadEffectLibrary(effects_).variants.at(0), ShaderCompiler().Identity());
    }

    // Puts a block into the cache, past the program.
    void Cache(const std::string& name, const Bytes& block) const {
        const std::string directory = cache_.string();
        const Util::RefPtr<Quorvel::EffectCacheSystem> cache(
            new Quorvel::EffectCacheSystem(CStr(directory.c_str())));
        cache->CacheCompiledEffect(CStr(name.c_str()), block.data(), block.size(), false);
    }

    TemporaryDirectory folder_;
    std::filesystem::path effects_ = folder_.Path() / "effects";
    std::filesystem::path cache_ = folder_.Path() / "cache";
};

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

TEST_F(Program, AnEditedIncludeIsCompiledAnew) {
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

TEST_F(Program, VerificationFindsBytesThatTheCompilerDoesNotMake) {
    const std::string name = FirstName();
    Cache(name, PackCachedEffect(name, {1, {1, 2, 3}}));
    const Result result = Run({"--verify", "--quiet"});
    EXPECT_EQ(result.exitCode, 7);
    EXPECT_THAT(result.output, StartsWith("effecthost: the cache returns other bytes"));
    EXPECT_THAT(result.output, HasSubstr(name));
}

TEST_F(Program, TheListingMarksWhatIsPermanent) {
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
    EXPECT_EQ(Run({"--list", (folder_.Path() / "none" / "list.txt").string()}).exitCode, 2);
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

TEST_F(Program, AnEffectThatDoesNotCompileIsExitCode5WithAllThatIsNeededToFindIt) {
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

TEST_F(Program, AProfileThatTheCompilerDoesNotKnowIsExitCode5) {
    Write("strange.hlsl", "//@ program Main zs_9_9\nfloat4 Main() : SV_Target { return 0.0; }\n");
    EXPECT_EQ(Run().exitCode, 5);
}

TEST_F(Program, ACacheFileThatCanNotBeOpenedIsExitCode6) {
    std::filesystem::create_directory(cache_ / "vornFxoCache.dat");
    const Result result = Run();
    EXPECT_EQ(result.exitCode, 6);
    EXPECT_THAT(result.output, HasSubstr("can't be used"));
}

TEST_F(Program, SeveralProcessesPassOnTheExitCodeOfTheOneThatFailed) {
    Write("broken.hlsl", "//@ program Main ps_4_0\nfloat4 Main() : SV_Target { return wat; }\n");
    const Result result = Run({"--processes", "2"});
    EXPECT_EQ(result.exitCode, 5);
    EXPECT_THAT(result.output, HasSubstr("ended with exit code 5"));
}

TEST(Processes, AProgramThatIsNotThereCanNotBeStarted) {
    const auto none = ExecutablePath().parent_path() / "no-such-program";
    EXPECT_THAT(FailureOf(ExitCode::ProcessFailed, [&] { ChildProcess process(none, {}); }),
                HasSubstr("no-such-program"));
}

}  // namespace
}  // namespace EffectHost
