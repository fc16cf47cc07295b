#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

namespace EffectHost {

// Reads a whole file. Throws Failure(BadEffects).
std::string ReadTextFile(const std::filesystem::path& path);

// An HLSL file and everything it includes.
struct SourceText {
    std::string text;
    std::map<std::string, std::string> includes;  // texts by the names in the directives
    std::uint64_t checksum = 0;                   // over everything above
};

// Reads an HLSL file of a folder, and the files that it includes with #include "NAME", directly or
// through others; names are relative to the folder. Ignores comments, and also ignores conditions
// such as #if. In the texts every such directive is written #include"NAME", since some compilers
// reject blanks there. Throws Failure(BadEffects) when a file is missing or a directive is
// malformed.
SourceText ReadSourceText(const std::filesystem::path& folder, const std::string& file);

}  // namespace EffectHost
