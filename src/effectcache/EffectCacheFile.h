#pragma once

#include <cstdint>

#include "effectcache/EffectIndex.h"
#include "effectcache/EffectQueue.h"
#include "effectcache/EffectRecord.h"
#include "package/PagedFilePackage.h"
#include "quorvel/AutoMutex.h"
#include "quorvel/MultiProcessTimeStamp.h"
#include "quorvel/MutexObject.h"
#include "vornutil/CStr.h"
#include "vornutil/RefPtr.h"
#include "vornutil/Tab.h"

namespace Quorvel {

// The cache's file: the package in it, the mutex that keeps other processes out, and the stamp that
// tells them of changes.
//
// Between two steps the package is Clean or there is none. FileState, in PagedFilePackage.h, says
// what each state means.
//
//   step    before   during                           after         if it fails
//   Open    none     Clean; a trim: as Save           Clean         Create
//   Create  none     Clean, Changed                   Clean         none
//   Sync    Clean    Discarded, if the file has       Clean         Rollback
//                    changed; a trim: as Save
//   Read    Clean    Clean                            Clean         Clean, nothing found
//   Save    Clean    as Sync; Saving, Overwriting     Clean         Rollback
//   Close   any      Discarded                        none
//
// Rollback ends without a package. It replaces the file with an empty cache, or truncates it if
// that fails too, only if the failed step was Changed or Overwriting: what it has written may
// contradict the state in the file. In any other state it leaves the file alone, even one that
// can't be opened; the next Open replaces that.
//
// Without a package the cache is permanently inert. Only Read may throw: what OpenDataStream
// throws.
class EffectCacheFile {
public:
    // Holds the file mutex while it lives. Every step requires one.
    //
    // If the last holder died, the mutex stays with this thread when the lock is destroyed, until
    // the thread ends, as AutoMutex documents. Other threads and processes wait until then.
    class Lock {
    public:
        explicit Lock(EffectCacheFile& file) : guard_(file.mutex_, kWaitForever) {}

        // True if the last holder may have died in the middle of a save.
        bool LastHolderDied() const { return guard_.WaitResult() == kWaitAbandoned; }

    private:
        const AutoMutex guard_;
    };

    // Creates or opens the mutex and the stamp, but does not touch the file. `directory` ends with
    // a path separator unless it is empty. Throws Win32APICallFailedException,
    // OutOfMemoryException.
    EffectCacheFile(const CStr& directory, const CStr& path);

    // False when the cache is inert.
    bool IsUsable() const { return static_cast<bool>(package_); }

    // Opens the file and trims it to the space budget, or makes an empty cache.
    void Open(const Lock& lock, EffectIndex& index) noexcept;

    // Loads the file again, and trims it, if another process has changed it or may have died while
    // changing it.
    void Sync(const Lock& lock, EffectIndex& index) noexcept;

    // Reads an effect's bytes. False when they are not intact. REQUIRES: Sync was called under this
    // lock, and the record belongs to its index.
    [[nodiscard]] bool Read(const Lock& lock, const EffectRecord& record, Tab<unsigned char>& data);

    // Syncs, then moves the queue's effects into the file, evicting others to make room. Without
    // room they are not saved, which counts as success. The caller then clears the queue. False on
    // failure: the cache is inert, the queue unchanged, and the index unspecified. REQUIRES: the
    // cache is usable.
    [[nodiscard]] bool Save(const Lock& lock, EffectIndex& index, EffectQueue& queue) noexcept;

    // Releases the package, without writing anything.
    void Close(const Lock& lock) noexcept;

private:
    bool Create(const Lock& lock, EffectIndex& index) noexcept;
    void Rollback(const Lock& lock, EffectIndex& index) noexcept;
    bool Load(const Lock& lock, EffectIndex& index);
    bool Trim(const Lock& lock, EffectIndex& index) noexcept;
    bool MakeRoom(const Lock& lock, EffectIndex& index, std::uint64_t limit);
    void Evict(const Lock& lock, EffectIndex& index, std::uint64_t limit);
    bool HasStreamsFor(const EffectIndex& index, EffectQueue& queue) const;
    void Store(const Lock& lock, EffectIndex& index, const PendingEffect& effect);
    void Commit(const Lock& lock, EffectIndex& index);
    std::uint64_t SpaceBudget() const;

    const CStr directory_;
    const CStr path_;                         // of the file
    Util::RefPtr<PagedFilePackage> package_;  // null when the cache is inert
    MutexObject mutex_;
    MultiProcessTimeStamp stamp_;
};

}  // namespace Quorvel
