#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace EffectHost {

// This host's strings are UTF-8 on Windows and in the system's encoding elsewhere.

// The words of the command line, including the program's name.
std::vector<std::string> CommandLineWords(int argc, const char* const* argv);

// Convert such a string to a path and back. The runtime's own conversions use other code pages.
std::filesystem::path ToPath(const std::string& text);
std::string ToText(const std::filesystem::path& path);

// The canonical spelling of an existing folder, without links or relative names. Throws
// std::filesystem::filesystem_error.
std::filesystem::path CanonicalFolder(const std::filesystem::path& folder);

// A path as fopen takes it; nothing when it can't be spelled that way.
std::optional<std::string> SpellingForFopen(const std::filesystem::path& path);

}  // namespace EffectHost
