#pragma once

namespace Quorvel::Platform {

// Separates the folders of a path.
extern const char kPathSeparator;

}  // namespace Quorvel::Platform
