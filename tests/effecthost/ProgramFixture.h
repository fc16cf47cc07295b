// Runs the real program, with the platform's real compiler, on small effects.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "CacheDirectory.h"
#include "CachedEffect.h"
#include "EffectLibrary.h"
#include "HostCache.h"
#include "Processes.h"
#include "ShaderCompiler.h"
#include "Summary.h"
#include "quorvel/EffectCacheSystem.h"
#include "support/TemporaryDirectory.h"
#include "vornutil/RefPtr.h"

namespace EffectHost {

using Quorvel::Testing::TemporaryDirectory;

inline constexpr const char* kEffect =
    "//@ axis SHADE 0 1 2\n"
    "//@ program PixelMain ps_4_0 SHADE\n"
    "#include \"tint.hlsli\"\n"
    "float4 PixelMain() : SV_Target\n"
    "{\n"
    "    return float4(tint, float(SHADE), 0.0, 1.0);\n"
    "}\n";
inline constexpr std::size_t kEffectVariants = 3;

class Program : public ::testing::Test {
protected:
    struct Result {
        int exitCode;
        std::string output;  // standard output and errors
    };

    Program() {
        std::filesystem::create_directory(effects_);
        std::filesystem::create_directory(cache_);
        Write("shade.hlsl", kEffect);
        Write("tint.hlsli", "static const float tint = 0.5;\n");
    }

    void Write(const char* name, const std::string& text) {
        std::ofstream(effects_ / name, std::ios::binary) << text;
    }

    // Replaces the effects with one that has this number of variants.
    void WriteVariants(std::size_t count) {
        std::string values;
        for (std::size_t i = 0; i < count; ++i) {
            values += fmt::format(" {}", i);
        }
        Write("shade.hlsl",
              fmt::format("//@ axis SHADE{}\n//@ program PixelMain ps_4_0 SHADE\n"
                          "float4 PixelMain() : SV_Target\n{{\n    return float(SHADE);\n}}\n",
                          values));
    }

    // The path of the program, which lies next to the tests.
    static std::filesystem::path ProgramPath() {
        const std::filesystem::path self = ExecutablePath();
        return (self.parent_path() / "effecthost").replace_extension(self.extension());
    }

    static Result RunWith(const std::vector<std::string>& arguments) {
        return RunOther(ProgramPath(), arguments);
    }

    static Result RunOther(const std::filesystem::path& program,
                           const std::vector<std::string>& arguments) {
        ChildProcess process = StartProgram(program, arguments);
        return Finish(process);
    }

    // Wine on a loaded machine sometimes fails to start a process with ERROR_INTERNAL_ERROR; the
    // next attempt works.
    static ChildProcess StartProgram(const std::filesystem::path& program,
                                     const std::vector<std::string>& arguments) {
        for (int attempts = 1;; ++attempts) {
            try {
                return {program, arguments, ChildProcess::Errors::Captured};
            } catch (const std::exception& failure) {
                const std::string text = failure.what();
                if (attempts == 5 || text.find("(error 1359)") == std::string::npos) { throw; }
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
            }
        }
    }

    Result Run(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> arguments{"--cache", cache_.string(), "--effects",
                                           effects_.string()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return RunWith(arguments);
    }

    // Starts the program with this spelling of the cache directory.
    ChildProcess Start(const std::filesystem::path& cache,
                       const std::vector<std::string>& more = {}) const {
        std::vector<std::string> arguments{"--cache", cache.string(), "--effects",
                                           effects_.string()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return StartProgram(ProgramPath(), arguments);
    }

    // Waits for the end of a program that was started.
    static Result Finish(ChildProcess& process) {
        const std::string output = process.ReadOutput();
        return {process.Wait(), output};
    }

    std::size_t EffectsInFile() const {
        return HostCache(FindCacheDirectory(cache_)).EffectsInFile();
    }

    Summary RunForSummary(std::vector<std::string> more = {}) const {
        more.push_back("--json");
        const Result result = Run(more);
        EXPECT_EQ(result.exitCode, 0) << result.output;
        return result.exitCode == 0 ? FromJson(result.output) : Summary{};
    }

    static std::string TextOf(const std::filesystem::path& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    // The name that the program gives the first variant.
    std::string FirstName() const {
        return EffectName(LoadEffectLibrary(effects_).variants.at(0), ShaderCompiler().Identity());
    }

    // Puts a block into the cache without the program.
    void Cache(const std::string& name, const Bytes& block) const {
        const std::string directory = FindCacheDirectory(cache_).string();
        const Util::RefPtr<Quorvel::EffectCacheSystem> cache(
            new Quorvel::EffectCacheSystem(CStr(directory.c_str())));
        cache->CacheCompiledEffect(CStr(name.c_str()), block.data(), block.size(), false);
    }

    TemporaryDirectory folder_;
    std::filesystem::path effects_ = folder_.Path() / "effects";
    std::filesystem::path cache_ = folder_.Path() / "cache";
};

}  // namespace EffectHost
