#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

namespace EffectHost {

// Reads a file whole. Throws Failure(BadEffects).
std::string ReadTextFile(const std::filesystem::path& path);

// An HLSL file and all that it includes.
struct SourceText {
    std::string text;
    std::map<std::string, std::string> includes;  // texts by the names that the directives give
    std::uint64_t checksum = 0;                   // over everything above
};

// Reads an HLSL file of a folder, and the files that it includes with #include "NAME", directly or
// through others; names are relative to the folder. Comments are skipped; conditions such as #if
// are not looked at. In the texts every such directive is written #include"NAME", since some
// compilers stumble over blanks there. Throws Failure(BadEffects) when a file is missing or a
// directive is malformed.
SourceText ReadSourceText(const std::filesystem::path& folder, const std::string& file);

}  // namespace EffectHost
