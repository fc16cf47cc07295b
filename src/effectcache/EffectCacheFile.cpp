#include "effectcache/EffectCacheFile.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "effectcache/SpaceBudget.h"
#include "effectcache/StoredEffect.h"
#include "pagestore/RollbackJournal.h"
#include "platform/Assert.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

namespace {

std::uint64_t CountReplaced(const EffectIndex& index, EffectQueue& queue) {
    const std::vector<PendingEffect*>& effects = queue.Entries();
    return static_cast<std::uint64_t>(std::count_if(
        effects.begin(), effects.end(),
        [&](const auto* effect) { return index.Find(effect->Key(), effect->hash) != nullptr; }));
}

}  // namespace

EffectCacheFile::EffectCacheFile(const CStr& directory) : shared_(directory) {}

// ---- Opening, creating, closing -----------------------------------------------------------------

void EffectCacheFile::Open(const Lock& lock, EffectIndex& index) noexcept {
    QUORVEL_ASSERT(lock.Holds(*this) && !package_);
    if (!Recover(lock)) { return; }
    try {
        package_ = PagedFilePackage::Open(CachePackageConfig(shared_.Path()));
        if (package_ && index.Load(*package_)) {
            Trim(lock, index);
            return;
        }
    } catch (...) {}
    Close(lock);
    Create(lock, index);
}

void EffectCacheFile::Create(const Lock& lock, EffectIndex& index) noexcept {
    QUORVEL_ASSERT(lock.Holds(*this) && !package_);
    index.Clear();
    try {
        package_ = PagedFilePackage::Create(CachePackageConfig(shared_.Path()));
        if (!package_) { return; }
        shared_.Stamp().UpdateTimeStamp();
        index.Start(*package_);
        package_->Commit();
    } catch (...) { Close(lock); }
}

void EffectCacheFile::Close(const Lock& lock) noexcept {
    QUORVEL_ASSERT(lock.Holds(*this));
    if (package_) {
        package_->Discard();
        package_.Reset();
    }
}

// Undoes the save of a process that died in it. False if that fails: this cache is then inert, and
// the other processes must retry the recovery before they trust the file.
bool EffectCacheFile::Recover(const Lock& lock) noexcept {
    QUORVEL_ASSERT(lock.Holds(*this));
    if (shared_.Path().Length() == 0) { return true; }
    try {
        RollbackJournal::Recover(shared_.Path().data());
        // The process may also have died between the end of its save and its stamp.
        if (lock.LastHolderDied()) { shared_.Stamp().UpdateTimeStamp(); }
        return true;
    } catch (...) {
        shared_.Stamp().UpdateTimeStamp();
        return false;
    }
}

// Undoes a save. If that fails, the cache is inert, as after a failed Recover. Only Close or a load
// of the package may follow.
void EffectCacheFile::Rollback(const Lock& lock) noexcept {
    QUORVEL_ASSERT(lock.Holds(*this));
    try {
        package_->Rollback();
    } catch (...) {
        shared_.Stamp().UpdateTimeStamp();
        Close(lock);
    }
}

// Undoes a save and loads the state that preceded it. If that fails, the cache is inert.
void EffectCacheFile::RollbackAndReload(const Lock& lock, EffectIndex& index) noexcept {
    QUORVEL_ASSERT(lock.Holds(*this));
    Rollback(lock);
    try {
        if (package_ && package_->Load() && index.Load(*package_)) { return; }
    } catch (...) {}
    Close(lock);
}

// ---- Reading ------------------------------------------------------------------------------------

void EffectCacheFile::Sync(const Lock& lock, EffectIndex& index) noexcept {
    QUORVEL_ASSERT(lock.Holds(*this) && package_ && package_->State() == FileState::Clean);
    // A holder that died in the middle of a save has written no stamp.
    if (!shared_.Stamp().IsChanged() && !lock.LastHolderDied()) { return; }
    package_->Discard();  // its pages may be older than those in the file
    try {
        if (Recover(lock) && package_->Load() && index.Load(*package_)) {
            Trim(lock, index);
            return;
        }
    } catch (...) {}
    Close(lock);
}

bool EffectCacheFile::Read(const Lock& lock, const EffectRecord& record, Tab<unsigned char>& data) {
    QUORVEL_ASSERT(lock.Holds(*this) && package_ && package_->State() == FileState::Clean);
    return ReadEffect(*package_, record, data);
}

// ---- Saving -------------------------------------------------------------------------------------

bool EffectCacheFile::Save(const Lock& lock, EffectIndex& index, EffectQueue& queue) noexcept {
    QUORVEL_ASSERT(lock.Holds(*this) && package_ && package_->State() == FileState::Clean);
    Sync(lock, index);
    if (!package_) { return false; }
    bool hasRoom = false;
    try {
        package_->BeginSave();
        const std::uint64_t budget =
            Budget(JournalBytes(*package_, index, CountReplaced(index, queue)));
        if (budget >= queue.ByteCount()) {
            ReservePages(*package_, index, queue.ByteCount(), budget);
            hasRoom = MakeRoom(lock, index, budget - queue.ByteCount());
        }
        if (hasRoom) {
            for (const PendingEffect* const effect : ClaimStreams(lock, index, queue)) {
                StoreEffect(*package_, index, effect->Key(), effect->hash, effect->Compiled(),
                            effect->permanent, CurrentEntryTime());
            }
        }
        Commit(lock, index);
        return true;
    } catch (const FileIOException& error) {
        if (!hasRoom && IsFull(error)) {
            // There is no room even for the journal, so the file keeps its old state.
            RollbackAndReload(lock, index);
            return IsUsable();
        }
    } catch (...) {}
    Rollback(lock);
    Close(lock);
    return false;
}

// Evicts effects until the package's streams have fewer bytes than `limit`. False if they still
// have more.
bool EffectCacheFile::MakeRoom(const Lock& lock, EffectIndex& index, std::uint64_t limit) {
    QUORVEL_ASSERT(lock.Holds(*this));
    if (package_->GetTotalDataSize() >= limit) { Evict(lock, index, limit); }
    return package_->GetTotalDataSize() < limit;
}

// One journal for all evictions might need more space than the volume has left. Therefore this
// function commits, and begins another save, whenever the journal has taken half of the space. The
// other half is for what the save writes next, and for other programs. However little space is
// left, each save evicts until its journal has a quarter of what the commit itself may add;
// otherwise most of the time would go into commits.
void EffectCacheFile::Evict(const Lock& lock, EffectIndex& index, std::uint64_t limit) {
    QUORVEL_ASSERT(lock.Holds(*this));
    for (;;) {
        const std::uint64_t commitBytes = JournalBytes(*package_, index, 0);
        const std::uint64_t room = std::min(limit, Budget(commitBytes)) / 2;
        const std::uint64_t most =
            std::max(room, commitBytes / 4) / RollbackJournal::kBytesPerPage + kMoreJournalPages;
        for (IndexEntry* const entry : index.EvictionOrder()) {
            if (package_->GetTotalDataSize() < limit) { return; }
            if (package_->JournalPages() >= most) { break; }
            DeleteEffect(*package_, index, entry);
        }
        if (package_->JournalPages() < most) { return; }  // no effect is left to evict
        Commit(lock, index);
        package_->BeginSave();
    }
}

// Trims a file that was just loaded to the space budget. A trim deletes streams that the index in
// the file still names and moves the tails of others, so it is a save of its own. A trim that fails
// is put off: the file still holds all its effects, just more than it should.
void EffectCacheFile::Trim(const Lock& lock, EffectIndex& index) noexcept {
    QUORVEL_ASSERT(lock.Holds(*this));
    try {
        const std::uint64_t budget = Budget(0);
        if (package_->GetTotalDataSize() < budget || index.EvictionOrder().empty()) { return; }
        package_->BeginSave();
        Evict(lock, index, budget);
        Commit(lock, index);
    } catch (...) { RollbackAndReload(lock, index); }
}

// Evicts effects until the package has streams for the whole queue. Returns the queue's effects,
// without the newest ones if evicting was not enough.
std::vector<PendingEffect*> EffectCacheFile::ClaimStreams(const Lock& lock, EffectIndex& index,
                                                          EffectQueue& queue) {
    QUORVEL_ASSERT(lock.Holds(*this));
    std::vector<PendingEffect*> effects = queue.Entries();
    std::vector<PendingEffect*> added;
    std::copy_if(effects.begin(), effects.end(), std::back_inserter(added),
                 [&](const auto* effect) { return !index.Find(effect->Key(), effect->hash); });
    const std::uint64_t needed = package_->GetNumberOfDataStreams() + added.size();
    std::uint64_t missing = needed - std::min(needed, kStreamLimit);
    if (missing == 0) { return effects; }
    for (IndexEntry* const entry : index.EvictionOrder()) {
        if (missing == 0) { return effects; }
        if (queue.Find(entry->Key(), entry->Key().Hash())) { continue; }
        DeleteEffect(*package_, index, entry);
        --missing;
    }
    if (missing == 0) { return effects; }
    const auto firstDropped = added.end() - static_cast<std::ptrdiff_t>(missing);
    std::nth_element(
        added.begin(), firstDropped, added.end(),
        [](const auto* left, const auto* right) { return left->order < right->order; });
    const std::uint32_t end = (*firstDropped)->order;
    std::erase_if(effects, [&](const auto* effect) {
        return effect->order >= end && !index.Find(effect->Key(), effect->hash);
    });
    return effects;
}

// Writes the index and commits, then tells the other processes.
void EffectCacheFile::Commit(const Lock& lock, EffectIndex& index) {
    QUORVEL_ASSERT(lock.Holds(*this));
    index.Write(*package_);
    package_->Commit();
    shared_.Stamp().UpdateTimeStamp();
}

std::uint64_t EffectCacheFile::Budget(std::uint64_t reserved) const noexcept {
    return SpaceBudget(shared_.Directory().path.c_str(), reserved);
}

}  // namespace Quorvel
