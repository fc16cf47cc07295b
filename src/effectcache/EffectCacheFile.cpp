#include "effectcache/EffectCacheFile.h"

#include <algorithm>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "effectcache/StreamHelpers.h"
#include "platform/Assert.h"
#include "platform/DiskSpace.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

namespace {

constexpr std::uint64_t kPageCacheCapacity = 64;

// The cache takes no more of a volume than this, however much is free.
constexpr std::uint64_t kLargestSpaceBudget = 0x10000000;

PagedFilePackageConfig PackageConfig(const CStr& path) {
    return {path.data(), kPageCacheCapacity, kStreamLimit};
}

// The name that a path gives the objects that processes share: letters and digits stay, any other
// byte becomes an underscore.
std::string ObjectName(const CStr& path, const char* suffix) {
    std::string name(path.data(), path.Length());
    for (char& byte : name) {
        const bool isPlain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                             (byte >= '0' && byte <= '9');
        if (!isPlain) { byte = '_'; }
    }
    return name + suffix;
}

}  // namespace

EffectCacheFile::EffectCacheFile(const CStr& directory, const CStr& path)
    : directory_(directory), path_(path), mutex_(ObjectName(path, "_mutex").c_str()) {
    // Initialised before the file is opened: a save in between causes one reload too many, where
    // the other order would miss it.
    stamp_.Initialize(ObjectName(path, "_timestamp").c_str());
}

// ---- Opening, creating, closing -----------------------------------------------------------------

void EffectCacheFile::Open(const Lock& lock, EffectIndex& index) noexcept {
    QUORVEL_ASSERT(!package_);
    try {
        package_ = PagedFilePackage::Open(PackageConfig(path_));
        if (package_ && Load(lock, index)) { return; }
    } catch (...) {}
    Rollback(lock, index);
    Create(lock, index);
}

bool EffectCacheFile::Create(const Lock& lock, EffectIndex& index) noexcept {
    QUORVEL_ASSERT(!package_);
    index.Clear();
    try {
        package_ = PagedFilePackage::Create(PackageConfig(path_));
        if (!package_) { return false; }
        stamp_.UpdateTimeStamp();
        index.Start(*package_);
        package_->Commit();
        return true;
    } catch (...) {
        Close(lock);
        return false;
    }
}

void EffectCacheFile::Close(const Lock& /*lock*/) noexcept {
    if (package_) {
        package_->Discard();
        package_.Reset();
    }
}

void EffectCacheFile::Rollback(const Lock& lock, EffectIndex& index) noexcept {
    const bool isFileSuspect = package_ && package_->MayHaveChangedFile();
    Close(lock);
    if (!isFileSuspect) { return; }
    if (!Create(lock, index)) {
        // Truncating the file needs no space, so it usually works on a full volume.
        if (std::FILE* const file = std::fopen(path_.data(), "wb")) { std::fclose(file); }
        stamp_.UpdateTimeStamp();
    }
    Close(lock);
}

// ---- Reading ------------------------------------------------------------------------------------

void EffectCacheFile::Sync(const Lock& lock, EffectIndex& index) noexcept {
    QUORVEL_ASSERT(package_);
    // A holder that died in the middle of a save has written no stamp.
    if (!stamp_.IsChanged() && !lock.LastHolderDied()) { return; }
    try {
        package_->Discard();  // uncommitted changes must not overwrite the new state
        if (package_->Load() && Load(lock, index)) { return; }
    } catch (...) {}
    Rollback(lock, index);
}

// Loads the index of a package that was just loaded, and trims the file.
bool EffectCacheFile::Load(const Lock& lock, EffectIndex& index) {
    if (!index.Load(*package_)) { return false; }
    if (Trim(lock, index)) { return true; }
    if (package_->MayHaveChangedFile()) { return false; }
    // A file that can't be written still holds all its effects, just more than it should.
    package_->Discard();
    // not reached in tests: a file that was just read, and not written since, can be read again
    return package_->Load() && index.Load(*package_);
}

bool EffectCacheFile::Read(const Lock& /*lock*/, const EffectRecord& record,
                           Tab<unsigned char>& data) {
    if (!package_) { return false; }
    Util::RefPtr<IDataStream> stream = package_->OpenDataStream(record.streamId);
    if (!ReadBytes(data, stream, kLargestEffect)) { return false; }
    const auto count = static_cast<std::uint64_t>(data.Count());
    return count == record.effectSize && stream->GetSize() == SerializedSize(count);
}

// ---- Saving -------------------------------------------------------------------------------------

bool EffectCacheFile::Save(const Lock& lock, EffectIndex& index, EffectQueue& queue) noexcept {
    QUORVEL_ASSERT(package_);
    Sync(lock, index);
    if (!package_) { return false; }
    try {
        package_->BeginSave();
        const std::uint64_t budget = SpaceBudget();
        if (budget >= queue.ByteCount() && MakeRoom(lock, index, budget - queue.ByteCount())) {
            if (!HasStreamsFor(index, queue)) { throw FileIOException(); }
            for (const PendingEffect* const effect : queue.Entries()) {
                Store(lock, index, *effect);
            }
        }
        Commit(lock, index);
        return true;
    } catch (...) {
        Rollback(lock, index);
        return false;
    }
}

// Deletes streams of evicted effects until the package has fewer bytes than `limit`. False if it
// still has more.
bool EffectCacheFile::MakeRoom(const Lock& lock, EffectIndex& index, std::uint64_t limit) {
    if (package_->GetTotalDataSize() >= limit) { Evict(lock, index, limit); }
    return package_->GetTotalDataSize() < limit;
}

void EffectCacheFile::Evict(const Lock& /*lock*/, EffectIndex& index, std::uint64_t limit) {
    for (IndexEntry* const entry : index.EvictionOrder()) {
        if (package_->GetTotalDataSize() < limit) { return; }
        package_->DeleteDataStream(entry->record.streamId);
        index.Remove(entry);
    }
}

// Trims a file that was just loaded to the space budget. A trim deletes streams that the index in
// the file still names and moves the tails of others, so it is a save of its own.
bool EffectCacheFile::Trim(const Lock& lock, EffectIndex& index) noexcept {
    try {
        const std::uint64_t budget = SpaceBudget();
        if (package_->GetTotalDataSize() < budget || index.EvictionOrder().empty()) { return true; }
        package_->BeginSave();
        Evict(lock, index, budget);
        Commit(lock, index);
        return true;
    } catch (...) { return false; }
}

// True if the package has enough free stream ids for the queue.
bool EffectCacheFile::HasStreamsFor(const EffectIndex& index, EffectQueue& queue) const {
    const auto& effects = queue.Entries();
    const auto added = std::count_if(effects.begin(), effects.end(), [&](const auto* effect) {
        return !index.Find(effect->Key(), effect->hash);
    });
    return package_->GetNumberOfDataStreams() + static_cast<std::uint64_t>(added) <= kStreamLimit;
}

void EffectCacheFile::Store(const Lock& /*lock*/, EffectIndex& index, const PendingEffect& effect) {
    const EffectKey name = effect.Key();
    const std::span<const unsigned char> bytes = effect.Compiled();
    if (IndexEntry* const replaced = index.Find(name, effect.hash)) {
        package_->DeleteDataStream(replaced->record.streamId);
        index.Remove(replaced);
    }
    const std::uint64_t id = package_->CreateDataStream(SerializedSize(bytes.size()));
    Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
    if (!WriteBytes(bytes, stream)) { throw FileIOException(); }
    const EffectRecord record = {id,
                                 static_cast<std::uint32_t>(name.length),
                                 static_cast<std::uint32_t>(bytes.size()),
                                 effect.permanent,
                                 CurrentEntryTime(),
                                 0};
    index.Put(name, effect.hash, record);
}

// Writes the index and commits, then tells the other processes.
void EffectCacheFile::Commit(const Lock& /*lock*/, EffectIndex& index) {
    index.Write(*package_);
    package_->Commit();
    stamp_.UpdateTimeStamp();
}

std::uint64_t EffectCacheFile::SpaceBudget() const {
    std::uint64_t available = 0;
    if (!Platform::GetFreeDiskSpace(directory_.data(), available)) {
        return kLargestSpaceBudget;  // a full volume is better than an empty cache
    }
    return std::min(available, kLargestSpaceBudget);
}

}  // namespace Quorvel
