#pragma once

#include <string>

#include "platform/Impersonation.h"

namespace Quorvel::Platform {

// A directory as it was found at one moment. Paths end with a separator, unless they are empty.
struct Directory {
    enum class Access { Granted, NotFound, BelongsToAnotherUser };

    Access access = Access::NotFound;

    // The path as it was given, or, if it was relative and the directory exists, `path`.
    std::string spelling;

    // These are set if the directory was found.
    std::string path;      // absolute and, on Linux, without links
    std::string identity;  // digits and underscores: the same text for every path of the directory;
                           // empty on a Windows volume that does not number its files
    UserId user = kSelf;   // use the directory as this user (Impersonation.h)
};

// Finds the directory of a path in order to keep a file of the given name in it.
//
// On Linux, the directory must belong to the process's effective user, and so must the file, if it
// exists. For root the directory may belong to any user; root then acts as that user, and the file
// must belong to the same one. On Windows the file system decides about access when the file is
// opened.
//
// Two directories may have the same identity in rare cases: on volumes that number their files
// badly, or when one was deleted and the system has used its number again.
Directory FindDirectory(const char* path, const char* file);

}  // namespace Quorvel::Platform
