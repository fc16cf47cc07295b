#include "Paths.h"

namespace EffectHost {

std::vector<std::string> CommandLineWords(int argc, const char* const* argv) {
    return {argv, argv + argc};
}

std::filesystem::path ToPath(const std::string& text) {
    return text;
}

std::string ToText(const std::filesystem::path& path) {
    return path.string();
}

std::filesystem::path CanonicalFolder(const std::filesystem::path& folder) {
    return std::filesystem::canonical(folder);
}

std::optional<std::string> SpellingForFopen(const std::filesystem::path& path) {
    return path.string();
}

}  // namespace EffectHost
