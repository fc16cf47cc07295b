#include "effectcache/EffectCacheImpl.h"

#include <cstdio>
#include <cstring>
#include <span>
#include <vector>

namespace Quorvel {

EffectCacheImpl::EffectCacheImpl(const CStr& directory) : directory_(directory), file_(directory) {
    const EffectCacheFile::Lock lock(file_);
    file_.Open(lock, index_);
}

// Saves and closes under one lock. If the lock were released in between, another process could take
// it and die in a save, and this thread would inherit the mutex without undoing that save.
EffectCacheImpl::~EffectCacheImpl() {
    if (!file_.IsUsable()) { return; }
    const EffectCacheFile::Lock lock(file_);
    Save(lock);
    file_.Close(lock);
}

void EffectCacheImpl::CacheCompiledEffect(const CStr& name, const unsigned char* data,
                                          std::uint64_t size, bool permanent) {
    if (!data || size < kSmallestEffect || size > kLargestEffect) { return; }
    const EffectKey key(name);
    if (key.length < kShortestName || key.length > kLongestName) { return; }
    const std::uint32_t hash = key.Hash();
    const Platform::CriticalSectionGuard guard(section_);
    if (!file_.IsUsable()) { return; }
    queue_.Add(key, hash, {data, size}, permanent);
    if (queue_.IsDue()) { SaveToFile(); }
}

bool EffectCacheImpl::SearchCachedEffects(const CStr& name, Tab<unsigned char>& data) {
    const EffectKey key(name);
    if (key.length == 0) { return false; }
    const std::uint32_t hash = key.Hash();
    const Platform::CriticalSectionGuard guard(section_);
    if (!file_.IsUsable()) { return false; }
    if (const PendingEffect* const pending = queue_.Find(key, hash)) {
        const std::span<const unsigned char> bytes = pending->Compiled();
        data.SetCount(static_cast<int>(bytes.size()));
        std::memcpy(data.Addr(0), bytes.data(), bytes.size());
        return true;
    }

    const EffectCacheFile::Lock lock(file_);
    file_.Sync(lock, index_);
    if (!file_.IsUsable()) { return false; }
    IndexEntry* const found = index_.Find(key, hash);
    if (!found || !file_.Read(lock, found->record, data)) { return false; }
    found->record.entryTime = CurrentEntryTime();
    return true;
}

void EffectCacheImpl::SaveToFile() noexcept {
    if (!file_.IsUsable()) { return; }
    const EffectCacheFile::Lock lock(file_);
    Save(lock);
}

void EffectCacheImpl::Save(const EffectCacheFile::Lock& lock) noexcept {
    if (queue_.Size() == 0) {
        // This thread keeps the abandoned mutex, so later waits won't report the death.
        if (lock.LastHolderDied()) { file_.Sync(lock, index_); }
    } else if (file_.Save(lock, index_, queue_)) {
        queue_.Clear();
    }
}

bool EffectCacheImpl::IsEnabled() {
    const Platform::CriticalSectionGuard guard(section_);
    return file_.IsUsable() && enabled_;
}

void EffectCacheImpl::SetEnabled(bool enabled) {
    const Platform::CriticalSectionGuard guard(section_);
    enabled_ = enabled;
}

void EffectCacheImpl::ListCachedEffects(const char* fileName) {
    const std::vector<IndexEntry*>& entries = index_.Entries();
    std::FILE* const file = fileName ? std::fopen(fileName, "w") : nullptr;
    if (!file) { return; }
    for (const IndexEntry* const entry : entries) {
        std::fputs("Name: ", file);
        std::fwrite(entry->Key().bytes, 1, entry->Key().length, file);
        const std::uint32_t size = entry->record.effectSize;
        const std::uint32_t permanent = entry->record.permanent;
        std::fprintf(file, " Size: %lu Permanent: %lu\n", static_cast<unsigned long>(size),
                     static_cast<unsigned long>(permanent));
    }
    std::fclose(file);
}

}  // namespace Quorvel
