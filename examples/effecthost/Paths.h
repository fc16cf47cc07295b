#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace EffectHost {

// Strings and paths of this host are UTF-8 on Windows, and whatever the system uses elsewhere.

// The words of the command line, the program's name included.
std::vector<std::string> CommandLineWords(int argc, const char* const* argv);

// A path of such a string, and back. The runtime's own conversions use other code pages.
std::filesystem::path ToPath(const std::string& text);
std::string ToText(const std::filesystem::path& path);

// The one spelling of an existing folder, whatever links and relative names led to it. Throws
// std::filesystem::filesystem_error.
std::filesystem::path CanonicalFolder(const std::filesystem::path& folder);

// A path as fopen takes it; nothing when it has no such spelling.
std::optional<std::string> SpellingForFopen(const std::filesystem::path& path);

}  // namespace EffectHost
