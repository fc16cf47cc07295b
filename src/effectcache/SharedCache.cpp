#include "effectcache/SharedCache.h"

#include <string>

#include "effectcache/EffectRecord.h"
#include "platform/Impersonation.h"

namespace Quorvel {

namespace {

constexpr std::uint64_t kPageCacheCapacity = 64;

CStr FilePath(const Platform::Directory& directory) {
    if (directory.access != Platform::Directory::Access::Granted) { return {}; }
    return (directory.path + kCacheFileName).c_str();
}

// The name, made from a path, of the objects that processes share: letters and digits stay, any
// other byte becomes an underscore.
std::string ObjectName(std::string path) {
    for (char& byte : path) {
        const bool isPlain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                             (byte >= '0' && byte <= '9');
        if (!isPlain) { byte = '_'; }
    }
    return path;
}

}  // namespace

PagedFilePackageConfig CachePackageConfig(const CStr& path) {
    return {path.data(), kPageCacheCapacity, kStreamLimit};
}

SharedCache::SharedCache(const CStr& directory)
    : directory_(Platform::FindDirectory(directory.data(), kCacheFileName)),
      path_(FilePath(directory_)) {
    const Platform::Impersonation asOwner(directory_.user);
    const std::string& spelling = directory_.spelling;
    std::string name = spelling.empty() ? std::string() : ObjectName(spelling + kCacheFileName);
    if (path_.Length() != 0 && !directory_.identity.empty()) {
        name = name_.Agree(std::string("vornFxoCache_") + directory_.identity, name);
    }
    mutex_.emplace((name + "_mutex").c_str());
    // Initialised before the file is opened: a save in between then causes a needless reload. In
    // the other order it would be missed.
    stamp_.Initialize((name + "_timestamp").c_str());
}

}  // namespace Quorvel
