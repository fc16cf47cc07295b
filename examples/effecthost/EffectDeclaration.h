#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace EffectHost {

// A macro and the values it takes.
struct MacroAxis {
    std::string macro;
    std::vector<std::string> values;
};

// An entry point, the profile it is compiled for, and every axis of its file. Axes that it does not
// name have one value.
struct EffectProgram {
    std::string entryPoint;
    std::string profile;
    std::vector<MacroAxis> axes;
};

// What an HLSL file declares in comment lines that begin with //@ :
//
//     //@ axis SHADOWS 0 1
//     //@ axis LIGHTS 1 2 4
//     //@ program VertexMain vs_4_0
//     //@ program PixelMain ps_4_0 SHADOWS LIGHTS
//
// A program is compiled once for every combination of values of the axes it names; here PixelMain
// is compiled six times. The macros of the other axes have their first value. Axes must be declared
// before they are named.
struct EffectDeclaration {
    std::vector<EffectProgram> programs;
};

// Reads the declaration from an HLSL file's text; file is its name, for messages. Throws
// Failure(BadEffects) when a line is malformed, an axis is unknown, declared twice, never used or
// has a value twice, or there is no program.
EffectDeclaration ParseEffectDeclaration(const std::string& file, std::string_view text);

}  // namespace EffectHost
