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

// How the cache opens its package: with 64 pages in memory, so that a larger save overwrites pages
// before it commits. The path must outlive the result.
PagedFilePackageConfig CachePackageConfig(const CStr& path);

// What processes share of a directory's cache: the path of its file, the mutex that keeps other
// processes out of it, and the stamp that tells them of changes. All caches of a directory have the
// same mutex and stamp, named after the path that the first of them was given.
class SharedCache {
public:
    // Finds the directory, and creates or opens the mutex and the stamp, but does not touch the
    // file. Throws Win32APICallFailedException, OutOfMemoryException.
    explicit SharedCache(const CStr& directory);

    const Platform::Directory& Directory() const { return directory_; }

    // The path of the file. Empty if the file must not be used.
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
