#include "platform/Directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "platform/Path.h"

namespace Quorvel::Platform {

namespace {

// True if the file is missing or has the same owner as the directory, and that owner is the user of
// the process or one that the process can impersonate.
bool MayUse(const struct stat& directory, const std::string& file) {
    struct stat status {};
    if (::stat(file.c_str(), &status) == 0 && status.st_uid != directory.st_uid) { return false; }
    const Impersonation asOwner(directory.st_uid);
    return CurrentUser() == directory.st_uid;
}

}  // namespace

Directory FindDirectory(const char* path, const char* file) {
    Directory found;
    found.spelling = WithSeparator(path);
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path, nullptr), &std::free);
    struct stat status {};
    // not reached in tests: the directory goes away between the two calls
    if (!real || ::stat(real.get(), &status) != 0 || !S_ISDIR(status.st_mode)) { return found; }
    found.path = WithSeparator(real.get());
    if (path[0] != '/') { found.spelling = found.path; }
    const bool mayUse = MayUse(status, found.path + file);
    found.access = mayUse ? Directory::Access::Granted : Directory::Access::BelongsToAnotherUser;
    found.identity = std::to_string(status.st_dev) + '_' + std::to_string(status.st_ino);
    if (status.st_uid != ::geteuid()) { found.user = status.st_uid; }
    return found;
}

}  // namespace Quorvel::Platform
