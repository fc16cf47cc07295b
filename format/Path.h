#pragma once

#include <filesystem>
#include <string>

namespace Quorvel::Format {

// The path that a string spells. On Windows the string is UTF-8, which the runtime library's own
// conversion would misread.
inline std::filesystem::path ToPath(const std::string& text) {
    return std::u8string(text.begin(), text.end());
}

}  // namespace Quorvel::Format
