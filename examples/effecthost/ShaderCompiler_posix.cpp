#include <fmt/format.h>

#include <shaderc/shaderc.hpp>

#include "Failure.h"
#include "ShaderCompiler.h"

namespace EffectHost {

namespace {

// Identifies the options of MakeOptions in effect names. Change it together with them.
constexpr const char* kOptionsTag = "speed.1";

shaderc_shader_kind ShaderKind(const EffectVariant& variant) {
    RequireKnownProfile(variant);
    return variant.profile.starts_with("vs_") ? shaderc_vertex_shader : shaderc_fragment_shader;
}

// Provides the includes that were read with the source.
class Includer : public shaderc::CompileOptions::IncluderInterface {
public:
    explicit Includer(const SourceText& source) : source_(source) {}

    shaderc_include_result* GetInclude(const char* name, shaderc_include_type, const char*,
                                       std::size_t) override {
        const auto found = source_.includes.find(name);
        if (found == source_.includes.end()) {
            static constexpr std::string_view kMissing = "no such file";
            return new shaderc_include_result{"", 0, kMissing.data(), kMissing.size(), nullptr};
        }
        const auto& [file, text] = *found;
        return new shaderc_include_result{file.data(), file.size(), text.data(), text.size(),
                                          nullptr};
    }

    void ReleaseInclude(shaderc_include_result* result) override { delete result; }

private:
    const SourceText& source_;
};

// HLSL numbers buffers, textures and samplers separately from 0; SPIR-V has one list of bindings.
shaderc::CompileOptions MakeOptions(const EffectVariant& variant) {
    shaderc::CompileOptions options;
    options.SetSourceLanguage(shaderc_source_language_hlsl);
    options.SetOptimizationLevel(shaderc_optimization_level_performance);
    options.SetAutoBindUniforms(true);
    options.SetAutoMapLocations(true);
    options.SetIncluder(std::make_unique<Includer>(*variant.source));
    for (const auto& [macro, value] : variant.macros) {
        options.AddMacroDefinition(macro, value);
    }
    return options;
}

}  // namespace

struct ShaderCompiler::State {
    shaderc::Compiler compiler;
    std::string identity;
};

ShaderCompiler::ShaderCompiler() : state_(std::make_unique<State>()) {
    if (!state_->compiler.IsValid()) {
        throw Failure(ExitCode::NoCompiler, "shaderc can't be started");
    }
    unsigned int version = 0;
    unsigned int revision = 0;
    shaderc_get_spv_version(&version, &revision);
    state_->identity =
        fmt::format("spirv-{:x}.{}-{}-{}", version, revision, kOptionsTag, ProbeCompiler(*this));
}

ShaderCompiler::~ShaderCompiler() = default;

const std::string& ShaderCompiler::Identity() const {
    return state_->identity;
}

Bytes ShaderCompiler::Compile(const EffectVariant& variant) const {
    const auto result = state_->compiler.CompileGlslToSpv(
        variant.source->text.data(), variant.source->text.size(), ShaderKind(variant),
        variant.file.c_str(), variant.entryPoint.c_str(), MakeOptions(variant));
    if (result.GetCompilationStatus() != shaderc_compilation_status_success) {
        ThrowCompileError(variant, result.GetErrorMessage());
    }
    const auto* first = reinterpret_cast<const unsigned char*>(result.cbegin());
    const auto* last = reinterpret_cast<const unsigned char*>(result.cend());
    return Bytes(first, last);
}

}  // namespace EffectHost
