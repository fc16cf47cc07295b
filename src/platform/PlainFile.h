#pragma once

#include <cstdio>

// Files at paths where another program may have put something else, such as a link to a file that
// must not be touched. Both functions return null on failure and leave the reason in errno.
namespace Quorvel::Platform {

// Creates a file and opens it for writing. EEXIST if there is anything at the path, even a link
// that leads nowhere.
std::FILE* CreateNewFile(const char* path) noexcept;

// Opens an existing file for reading. ENOENT if there is nothing at the path, ELOOP if there is
// something other than a regular file or, on Linux, a file of another user, readable or not.
std::FILE* OpenPlainFile(const char* path) noexcept;

}  // namespace Quorvel::Platform
