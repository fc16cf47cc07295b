#include "SourceText.h"

#include <fmt/format.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string_view>

#include "Checksum.h"
#include "Failure.h"
#include "Paths.h"

namespace EffectHost {

namespace {

// The name in an #include "NAME" line; empty for any other line.
std::optional<std::string> IncludedFile(std::string_view line, const std::string& where) {
    const std::size_t start = line.find_first_not_of(" \t");
    constexpr std::string_view kDirective = "#include";
    if (start == std::string_view::npos || !line.substr(start).starts_with(kDirective)) {
        return std::nullopt;
    }
    const std::size_t open = line.find('"');
    const std::size_t close = line.rfind('"');
    if (open == std::string_view::npos || close == open) {
        throw Failure(ExitCode::BadEffects, fmt::format("{}: #include wants a \"name\"", where));
    }
    return std::string(line.substr(open + 1, close - open - 1));
}

// Adds what a file of that text includes and was not met before.
void CollectIncludes(const std::filesystem::path& folder, const std::string& file,
                     const std::string& text, std::map<std::string, std::string>& includes) {
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        const auto included = IncludedFile(line, fmt::format("{}:{}", file, number));
        if (included && !includes.contains(*included)) {
            const std::string& includedText =
                includes.emplace(*included, ReadTextFile(folder / ToPath(*included))).first->second;
            CollectIncludes(folder, *included, includedText, includes);
        }
    }
}

}  // namespace

std::string ReadTextFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file) {
        throw Failure(ExitCode::BadEffects, fmt::format("can't read {}", ToText(path)));
    }
    return text;
}

SourceText ReadSourceText(const std::filesystem::path& folder, const std::string& file) {
    SourceText source;
    source.text = ReadTextFile(folder / ToPath(file));
    CollectIncludes(folder, file, source.text, source.includes);

    Checksum checksum;
    checksum.Add(source.text);
    for (const auto& [name, text] : source.includes) {
        checksum.Add(name).Add(text);
    }
    source.checksum = checksum.Value();
    return source;
}

}  // namespace EffectHost
