#include "EffectLibrary.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <set>

#include "Failure.h"
#include "Paths.h"

namespace EffectHost {

namespace {

bool IsSource(const std::filesystem::path& path) {
    std::string extension = ToText(path.extension());
    for (char& letter : extension) {
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return extension == ".hlsl";
}

std::vector<std::string> FindSources(const std::filesystem::path& folder) {
    std::error_code error;
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        if (IsSource(entry.path())) { files.push_back(ToText(entry.path().filename())); }
    }
    if (error) {
        throw Failure(ExitCode::BadEffects, fmt::format("can't read the effects folder {}: {}",
                                                        ToText(folder), error.message()));
    }
    if (files.empty()) {
        throw Failure(ExitCode::BadEffects,
                      fmt::format("there is no .hlsl file in {}", ToText(folder)));
    }
    std::sort(files.begin(), files.end());
    return files;
}

void AppendVariants(const std::filesystem::path& folder, const std::string& file,
                    std::vector<EffectVariant>& variants) {
    const auto source = std::make_shared<const SourceText>(ReadSourceText(folder, file));
    const EffectDeclaration declaration = ParseEffectDeclaration(file, source->text);
    std::set<std::string> known;
    for (const EffectProgram& program : declaration.programs) {
        for (std::vector<MacroValue>& macros : ExpandAxes(program.axes)) {
            const std::string text =
                fmt::format("{} {} {}", program.entryPoint, program.profile, MacroText(macros));
            if (!known.insert(text).second) {
                throw Failure(ExitCode::BadEffects,
                              fmt::format("{}: two variants are alike: {}", file, text));
            }
            variants.push_back(
                {file, program.entryPoint, program.profile, std::move(macros), source});
        }
    }
}

}  // namespace

std::string MacroText(const std::vector<MacroValue>& macros) {
    std::string text;
    for (const auto& [macro, value] : macros) {
        text += fmt::format("{}{}={}", text.empty() ? "" : ",", macro, value);
    }
    return text;
}

std::string EffectName(const EffectVariant& variant, std::string_view compiler) {
    return fmt::format("{}:{}:{}:{}:{}-{:016x}", variant.file, variant.entryPoint, variant.profile,
                       MacroText(variant.macros), compiler, variant.source->checksum);
}

std::vector<std::vector<MacroValue>> ExpandAxes(const std::vector<MacroAxis>& axes) {
    std::vector<std::vector<MacroValue>> combinations{{}};
    for (const MacroAxis& axis : axes) {
        std::vector<std::vector<MacroValue>> longer;
        for (const std::vector<MacroValue>& combination : combinations) {
            for (const std::string& value : axis.values) {
                longer.push_back(combination);
                longer.back().push_back({axis.macro, value});
            }
        }
        combinations = std::move(longer);
    }
    return combinations;
}

EffectLibrary LoadEffectLibrary(const std::filesystem::path& folder) {
    EffectLibrary library;
    for (const std::string& file : FindSources(folder)) {
        AppendVariants(folder, file, library.variants);
        ++library.sourceCount;
    }
    return library;
}

}  // namespace EffectHost
