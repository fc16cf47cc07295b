#pragma once

namespace Quorvel::Platform {

// What stands between the folders of a path.
extern const char kPathSeparator;

}  // namespace Quorvel::Platform
