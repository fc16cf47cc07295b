#pragma once

#include <string>

namespace Quorvel::Platform {

// Separates the folders of a path.
extern const char kPathSeparator;

// The path with a separator at its end. An empty path stays empty.
inline std::string WithSeparator(std::string path) {
    if (!path.empty() && path.back() != kPathSeparator) { path += kPathSeparator; }
    return path;
}

}  // namespace Quorvel::Platform
