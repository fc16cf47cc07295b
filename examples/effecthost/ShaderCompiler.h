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

    // The kind and version of what it makes, for effect names.
    const std::string& Identity() const;

    // The compiled bytes. Throws Failure(CompileError) with the compiler's own words.
    Bytes Compile(const EffectVariant& variant) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// The failure of a variant: its file, entry point, profile and macros, then the compiler's words.
[[noreturn]] void ThrowCompileError(const EffectVariant& variant, const std::string& words);

}  // namespace EffectHost
