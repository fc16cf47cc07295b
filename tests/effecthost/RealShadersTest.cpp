// Stores a thousand shaders, compiled by the platform's real compiler, in an effect cache and in a
// package, and changes and reloads them: the stored bytes stay right and the files sound.
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "EffectLibrary.h"
#include "Processes.h"
#include "ShaderCompiler.h"
#include "format/LibraryCache.h"
#include "format/LibraryPackage.h"
#include "support/TemporaryDirectory.h"

namespace EffectHost {
namespace {

using Quorvel::Format::AddStream;
using Quorvel::Format::CachedEffects;
using Quorvel::Format::ExpectFile;
using Quorvel::Format::ExpectStreams;
using Quorvel::Format::LibraryCache;
using Quorvel::Testing::TemporaryDirectory;

// Adds 480 variants to those of the example.
constexpr const char* kPosterize =
    "//@ axis LEVELS 2 3 4 5 6 7 8 9 10 12 16 20 24 32 48 64\n"
    "//@ axis GAMMA 10 18 20 22 24 26\n"
    "//@ axis TINT 0 1 2 3 4\n"
    "//@ program PixelMain ps_4_0 LEVELS GAMMA TINT\n"
    "Texture2D scene : register(t0);\n"
    "SamplerState pointSampler : register(s0);\n"
    "float4 PixelMain(float4 position : SV_Position, float2 uv : TEXCOORD0) : SV_Target\n"
    "{\n"
    "    float3 color = pow(abs(scene.Sample(pointSampler, uv).rgb), float(GAMMA) / 10.0);\n"
    "    color = round(color * float(LEVELS)) / float(LEVELS);\n"
    "#if TINT == 1\n"
    "    color *= float3(1.0, 0.9, 0.7);\n"
    "#elif TINT == 2\n"
    "    color = float3(dot(color, float3(0.2126, 0.7152, 0.0722)).xxx);\n"
    "#elif TINT == 3\n"
    "    color = 1.0 - color;\n"
    "#elif TINT == 4\n"
    "    color = color.bgr;\n"
    "#endif\n"
    "    return float4(color, 1.0);\n"
    "}\n";

struct Shader {
    std::string name;
    Bytes bytes;
};

class RealShaders : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const TemporaryDirectory more;
        std::ofstream(more.Path() / "posterize.hlsl", std::ios::binary) << kPosterize;
        const ShaderCompiler compiler;
        for (const auto& folder : {ExecutablePath().parent_path() / "effects", more.Path()}) {
            for (const EffectVariant& variant : LoadEffectLibrary(folder).variants) {
                shaders_.push_back(
                    {EffectName(variant, compiler.Identity()), compiler.Compile(variant)});
            }
        }
        std::shuffle(shaders_.begin(), shaders_.end(), std::mt19937(7));
    }

    static void TearDownTestSuite() { shaders_.clear(); }

    void SetUp() override { ASSERT_GE(shaders_.size(), 1000u); }

    // The code of another shader, as a replacement.
    static const Bytes& OtherCode(std::size_t index) {
        return shaders_[(index + 1) % shaders_.size()].bytes;
    }

    static void ExpectAllFound(LibraryCache& cache, const CachedEffects& effects) {
        for (const auto& [name, effect] : effects) {
            EXPECT_TRUE(cache.Search(name) == effect.data) << name;
        }
    }

    static std::vector<Shader> shaders_;
    TemporaryDirectory directory_;
};

std::vector<Shader> RealShaders::shaders_;

TEST_F(RealShaders, AreReadBackFromTheCacheAfterSaveReopenReplaceAndReload) {
    const std::string file = Quorvel::Format::CacheFile(directory_);
    CachedEffects effects;
    {
        LibraryCache cache(directory_);
        for (const Shader& shader : shaders_) {
            const bool permanent = effects.size() % 7 == 0;
            cache.Add(shader.name, effects[shader.name] = {shader.bytes, permanent});
        }
        ExpectAllFound(cache, effects);
    }
    ASSERT_EQ(effects.size(), shaders_.size());
    ExpectCacheFile(file, effects);

    LibraryCache reopened(directory_);
    ExpectAllFound(reopened, effects);
    for (std::size_t i = 0; i < shaders_.size(); i += 3) {
        const std::string& name = shaders_[i].name;
        reopened.Add(name, effects[name] = {OtherCode(i), false});
    }
    ExpectAllFound(reopened, effects);
    reopened->ForceSaveToFile();
    ExpectCacheFile(file, effects);
    ExpectAllFound(reopened, effects);

    LibraryCache other(directory_);
    for (std::size_t i = 0; i < shaders_.size(); i += 2) {
        const std::string& name = shaders_[i].name;
        other.Add(name, effects[name] = {shaders_[i].bytes, true});
    }
    other->ForceSaveToFile();
    ExpectCacheFile(file, effects);
    ExpectAllFound(reopened, effects);
}

TEST_F(RealShaders, AreReadBackFromAPackageAfterSaveReopenDeleteReplaceAndReload) {
    const std::string file = directory_.File("shaders.pkg");
    std::map<std::uint64_t, Bytes> streams;
    {
        const auto package = Quorvel::Format::CreatePackage(file);
        for (const Shader& shader : shaders_) {
            streams[AddStream(*package, shader.bytes)] = shader.bytes;
        }
    }
    ASSERT_EQ(streams.size(), shaders_.size());
    ExpectFile(file, streams, {});

    const auto package = Quorvel::Format::OpenPackage(file);
    ASSERT_TRUE(package);
    ExpectStreams(*package, streams);
    std::size_t seen = 0;
    std::erase_if(streams, [&](const auto& stream) {
        return seen++ % 3 == 0 && package->DeleteDataStream(stream.first);
    });
    ASSERT_LT(streams.size(), shaders_.size());
    ExpectStreams(*package, streams);
    ASSERT_TRUE(package->Commit());
    ExpectFile(file, streams, {});

    for (std::size_t i = 0; i < shaders_.size(); i += 4) {
        streams[AddStream(*package, OtherCode(i))] = OtherCode(i);
    }
    ExpectStreams(*package, streams);
    ASSERT_TRUE(package->Commit());
    ExpectFile(file, streams, {});
    ASSERT_TRUE(package->Load());
    ExpectStreams(*package, streams);
}

}  // namespace
}  // namespace EffectHost
