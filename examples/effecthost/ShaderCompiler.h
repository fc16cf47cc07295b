#pragma once

#include <memory>
#include <string>

#include "CachedEffect.h"
#include "EffectLibrary.h"

namespace EffectHost {

// The platform's compiler of HLSL: shaderc, which makes SPIR-V, or Windows' own, which makes
// Direct3D byte code. The same variant always gives the same bytes.
class ShaderCompiler {
public:
    // Throws Failure(NoCompiler) when the compiler can't be loaded.
    ShaderCompiler();
    ShaderCompiler(const ShaderCompiler&) = delete;
    ShaderCompiler& operator=(const ShaderCompiler&) = delete;
    ~ShaderCompiler();

    // What decides the bytes besides the variant, for effect names: the kind of what it makes, its
    // version, the options, and a checksum of what it makes of a small effect, which differs where
    // versions say too little.
    const std::string& Identity() const;

    // The compiled bytes. Throws Failure(CompileError) with the compiler's own words.
    Bytes Compile(const EffectVariant& variant) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// What a compiler makes of a small effect, as a few letters. Takes milliseconds.
std::string ProbeCompiler(const ShaderCompiler& compiler);

// Throws Failure(CompileError) unless the profile is one that every compiler here takes.
void RequireKnownProfile(const EffectVariant& variant);

// The failure of a variant: its file, entry point, profile and macros, then the compiler's words.
[[noreturn]] void ThrowCompileError(const EffectVariant& variant, const std::string& words);

}  // namespace EffectHost
