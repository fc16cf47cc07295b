#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "EffectDeclaration.h"
#include "SourceText.h"

namespace EffectHost {

struct MacroValue {
    std::string macro;
    std::string value;
};

// The unit of compilation: a program of a source file with one choice of macro values.
struct EffectVariant {
    std::string file;  // relative to the effects folder
    std::string entryPoint;
    std::string profile;
    std::vector<MacroValue> macros;
    std::shared_ptr<const SourceText> source;
};

// "LIGHTS=2,FOG=1"; empty without macros.
std::string MacroText(const std::vector<MacroValue>& macros);

// The name under which a variant is cached:
//
//     lighting.hlsl:PixelMain:ps_4_0:LIGHTS=2,FOG=1:spirv-10600.1-speed.1-5b0c11d4-91c3f7a20b5e4d68
//
// It contains everything that determines the compiled bytes. The last part names the compiler and
// its options and ends in a checksum of the source and its includes: an edited source is a new
// effect, and the old one is evicted in time.
std::string EffectName(const EffectVariant& variant, std::string_view compiler);

// Every combination of a program's axes; the last axis changes fastest.
std::vector<std::vector<MacroValue>> ExpandAxes(const std::vector<MacroAxis>& axes);

// The effects of a folder: every variant of every .hlsl (or .HLSL) file in it, with the files in
// alphabetical order.
struct EffectLibrary {
    std::size_t sourceCount = 0;
    std::vector<EffectVariant> variants;
};

// Throws Failure(BadEffects) when the folder is missing or has no effect, or when an effect is
// malformed or has two equal variants.
EffectLibrary LoadEffectLibrary(const std::filesystem::path& folder);

}  // namespace EffectHost
