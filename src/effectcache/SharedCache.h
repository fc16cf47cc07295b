#pragma once

#include <cstdint>
#include <optional>

#include "multiprocess/SharedName.h"
#include "platform/Directory.h"
#include "quorvel/MultiProcessTimeStamp.h"
#include "quorvel/MutexObject.h"
#include "quorvel/PagedFilePackageConfig.h"
#include "vornutil/CStr.h"

namespace Quorvel {

constexpr char kCacheFileName[] = "vornFxoCache.dat";

// How the cache opens its package. The path must outlive the result.
PagedFilePackageConfig CachePackageConfig(const CStr& path);

// The cache of a directory, as far as processes share it: the path of its file, the mutex that
// keeps other processes out of it, and the stamp that tells them of changes. All caches of a
// directory have the same mutex and stamp, whose names are those that the first one derived from
// its path.
class SharedCache {
public:
    // Finds the directory, and creates or opens the mutex and the stamp, but does not touch the
    // file. Throws Win32APICallFailedException, OutOfMemoryException.
    explicit SharedCache(const CStr& directory);

    const Platform::Directory& Directory() const { return directory_; }

    // Of the file. Empty if it must not be used.
    const CStr& Path() const { return path_; }

    MutexObject& Mutex() { return *mutex_; }
    MultiProcessTimeStamp& Stamp() { return stamp_; }

private:
    const Platform::Directory directory_;
    const CStr path_;
    SharedName name_;  // of the mutex and the stamp, for every spelling
    std::optional<MutexObject> mutex_;
    MultiProcessTimeStamp stamp_;
};

}  // namespace Quorvel
