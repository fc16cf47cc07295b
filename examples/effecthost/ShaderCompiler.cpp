#include "ShaderCompiler.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "Checksum.h"
#include "Failure.h"

namespace EffectHost {

namespace {

constexpr std::string_view kProfiles[] = {"vs_4_0", "vs_4_1", "vs_5_0",
                                          "ps_4_0", "ps_4_1", "ps_5_0"};

// Uses a mix of features, so that differences in translation or optimisation change the bytes.
constexpr const char* kProbe =
    "cbuffer Constants : register(b0) { float4x4 transform; float4 tint; };\n"
    "Texture2D image : register(t0);\n"
    "SamplerState imageSampler : register(s0);\n"
    "float4 ProbeMain(float4 position : SV_Position, float2 uv : TEXCOORD0) : SV_Target\n"
    "{\n"
    "    float4 color = image.Sample(imageSampler, uv * 2.0 - 1.0) * tint;\n"
    "    float4 moved = mul(transform, float4(normalize(color.xyz), 1.0));\n"
    "    return lerp(color, moved, saturate(dot(moved.xyz, tint.xyz)));\n"
    "}\n";

}  // namespace

std::string ProbeCompiler(const ShaderCompiler& compiler) {
    const auto source = std::make_shared<SourceText>();
    source->text = kProbe;
    const Bytes bytes = compiler.Compile({"probe.hlsl", "ProbeMain", "ps_4_0", {}, source});
    const std::uint64_t checksum = Checksum().Add(bytes.data(), bytes.size()).Value();
    return fmt::format("{:08x}", checksum & 0xffffffff);
}

void RequireKnownProfile(const EffectVariant& variant) {
    if (std::find(std::begin(kProfiles), std::end(kProfiles), variant.profile) ==
        std::end(kProfiles)) {
        ThrowCompileError(variant,
                          fmt::format("the profile is not one of {}", fmt::join(kProfiles, ", ")));
    }
}

void ThrowCompileError(const EffectVariant& variant, const std::string& words) {
    const std::string macros = MacroText(variant.macros);
    throw Failure(ExitCode::CompileError,
                  fmt::format("{} does not compile: entry point {}, profile {}, {}\n{}",
                              variant.file, variant.entryPoint, variant.profile,
                              macros.empty() ? "no macros" : "macros " + macros, words));
}

}  // namespace EffectHost
