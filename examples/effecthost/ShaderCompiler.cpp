#include "ShaderCompiler.h"

#include <fmt/format.h>

#include "Failure.h"

namespace EffectHost {

void ThrowCompileError(const EffectVariant& variant, const std::string& words) {
    const std::string macros = MacroText(variant.macros);
    throw Failure(ExitCode::CompileError,
                  fmt::format("{} does not compile: entry point {}, profile {}, {}\n{}",
                              variant.file, variant.entryPoint, variant.profile,
                              macros.empty() ? "no macros" : "macros " + macros, words));
}

}  // namespace EffectHost
