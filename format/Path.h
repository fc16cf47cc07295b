#pragma once

#include <filesystem>
#include <string>

namespace Quorvel::Format {

// The path that a string spells, on Windows in UTF-8. There, the runtime library's own conversion
// takes the bytes for other characters.
inline std::filesystem::path ToPath(const std::string& text) {
    return std::u8string(text.begin(), text.end());
}

}  // namespace Quorvel::Format
