#pragma once

#include <memory>
#include <string>

#include "CachedEffect.h"
#include "EffectLibrary.h"

namespace EffectHost {

// The platform's HLSL compiler: shaderc, which produces SPIR-V, or that of Windows, which produces
// Direct3D byte code. The same variant always gives the same bytes.
class ShaderCompiler {
public:
    // Throws Failure(NoCompiler) when the compiler can't be loaded.
    ShaderCompiler();
    ShaderCompiler(const ShaderCompiler&) = delete;
    ShaderCompiler& operator=(const ShaderCompiler&) = delete;
    ~ShaderCompiler();

    // Everything besides the variant that determines the bytes, for effect names: the kind of
    // output, its version, the options, and a checksum of a small compiled effect, which
    // distinguishes compilers of the same version.
    const std::string& Identity() const;

    // The compiled bytes. Throws Failure(CompileError) with the compiler's message.
    Bytes Compile(const EffectVariant& variant) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// A short checksum of a small effect compiled by a compiler. Takes milliseconds.
std::string ProbeCompiler(const ShaderCompiler& compiler);

// Throws Failure(CompileError) unless both platforms' compilers accept the profile.
void RequireKnownProfile(const EffectVariant& variant);

// Throws the failure of a variant: file, entry point, profile, macros, then the compiler's message.
[[noreturn]] void ThrowCompileError(const EffectVariant& variant, const std::string& words);

}  // namespace EffectHost
