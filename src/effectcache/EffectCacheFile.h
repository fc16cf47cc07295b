#pragma once

#include <cstdint>
#include <vector>

#include "effectcache/EffectIndex.h"
#include "effectcache/EffectQueue.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/SharedCache.h"
#include "package/PagedFilePackage.h"
#include "platform/Impersonation.h"
#include "quorvel/AutoMutex.h"
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
//   step    before   during                           after    if it fails
//   Open    none     Clean; a trim: as Save           Clean    Create; none, if Recover fails or
//                                                              a trim can't be undone
//   Create  none     Clean, Changed                   Clean    none
//   Sync    Clean    Discarded, if the file has       Clean    none
//                    changed; a trim: as Save
//   Read    Clean    Clean                            Clean    Clean, nothing found
//   Save    Clean    as Sync; Saving, Overwriting     Clean    Closed by Rollback (Discarded, if
//                                                              BeginSave fails), then none
//           Clean    the same, on a volume that is    Clean    none
//                    full before MakeRoom has found
//                    room; then RollbackAndReload
//   Close   any but Saving and Overwriting            none
//
// In Clean, the page cache still rewrites pages that it evicts, with the same bytes.
//
// A save is BeginSave, ReservePages, MakeRoom, ClaimStreams, StoreEffect for each effect, Commit.
// Without room, only BeginSave and Commit are left, and what MakeRoom had evicted. A trim is
// BeginSave, Evict, Commit. Each Commit writes the index, commits the package and writes the stamp.
// MakeRoom evicts through Evict, which may commit and begin again several times, so that its
// journal has room. Only the last of these saves can be undone; effects that an earlier one evicted
// stay evicted. ClaimStreams never commits: an undone save brings back what it evicted. A trim that
// fails is put off: the file keeps more effects than it should.
//
// Open, and Sync after it has discarded the pages in memory, put back the pages that a process had
// overwritten when it died in a save. If that fails, the cache is inert, and the journal stays for
// the next process that opens or reloads the file. After a death there is a new stamp in either
// case, because the process that died may not have written one; processes that have the file open
// reload it.
//
// Without a package the cache is permanently inert, and its index stays as the failed step left it.
// Read is the only step that may throw; it throws what OpenDataStream throws.
class EffectCacheFile {
public:
    // Holds the file mutex for its lifetime. Every step requires a lock. If the process is root,
    // the thread acts as the directory's owner while it holds one.
    //
    // If the last holder died, destroying the lock does not release the mutex: it stays with this
    // thread until the thread ends, as AutoMutex documents. Other threads and processes wait until
    // then.
    class Lock {
    public:
        explicit Lock(EffectCacheFile& file)
            : file_(file),
              asOwner_(file.shared_.Directory().user),
              guard_(file.shared_.Mutex(), kWaitForever) {}

        // True if the last holder may have died in the middle of a save.
        bool LastHolderDied() const { return guard_.WaitResult() == kWaitAbandoned; }

        // True if the lock is that file's.
        bool Holds(const EffectCacheFile& file) const { return &file == &file_; }

    private:
        const EffectCacheFile& file_;
        const Platform::Impersonation asOwner_;
        const AutoMutex guard_;
    };

    // Does not touch the file. Throws Win32APICallFailedException, OutOfMemoryException.
    explicit EffectCacheFile(const CStr& directory);

    // False when the cache is inert.
    bool IsUsable() const { return static_cast<bool>(package_); }

    // Opens the file and trims it to the space budget, or makes an empty cache. Inert if old pages
    // can't be put back.
    void Open(const Lock& lock, EffectIndex& index) noexcept;

    // Loads the file again, and trims it, if another process has changed it or may have died while
    // changing it.
    void Sync(const Lock& lock, EffectIndex& index) noexcept;

    // Reads an effect's bytes. False when they can't be read or have another length than the record
    // says. REQUIRES: Sync was called under this lock, the cache is usable, and the record belongs
    // to its index.
    [[nodiscard]] bool Read(const Lock& lock, const EffectRecord& record, Tab<unsigned char>& data);

    // Syncs, then moves the queue's effects into the file, evicting others to make room and to free
    // streams. If there is no room, they are not saved, which counts as success; if there are too
    // few streams, the newest are not saved. The caller then clears the queue. False on failure:
    // the file keeps its old state except for committed evictions, and the cache is inert, the
    // queue unchanged and the index unspecified. REQUIRES: the cache is usable.
    [[nodiscard]] bool Save(const Lock& lock, EffectIndex& index, EffectQueue& queue) noexcept;

    // Releases the package without writing anything.
    void Close(const Lock& lock) noexcept;

private:
    void Create(const Lock& lock, EffectIndex& index) noexcept;
    [[nodiscard]] bool Recover(const Lock& lock) noexcept;
    void Rollback(const Lock& lock) noexcept;
    void RollbackAndReload(const Lock& lock, EffectIndex& index) noexcept;
    void Trim(const Lock& lock, EffectIndex& index) noexcept;
    [[nodiscard]] bool MakeRoom(const Lock& lock, EffectIndex& index, std::uint64_t limit);
    void Evict(const Lock& lock, EffectIndex& index, std::uint64_t limit);
    std::vector<PendingEffect*> ClaimStreams(const Lock& lock, EffectIndex& index,
                                             EffectQueue& queue);
    void Commit(const Lock& lock, EffectIndex& index);
    std::uint64_t Budget(std::uint64_t reserved) const noexcept;

    SharedCache shared_;
    Util::RefPtr<PagedFilePackage> package_;  // null when the cache is inert
};

}  // namespace Quorvel
