#pragma once

#include <cstdint>

#include "effectcache/EffectCacheFile.h"
#include "effectcache/EffectIndex.h"
#include "effectcache/EffectQueue.h"
#include "platform/CriticalSection.h"
#include "vornutil/CStr.h"
#include "vornutil/Tab.h"

namespace Quorvel {

// The effect cache behind EffectCacheSystem, which documents the operations and catches what they
// throw.
//
// Locks, in the order in which they are taken: the critical section (threads of this process; held
// for a whole search, including its reads), the file mutex (processes), the time stamp's own mutex
// (inside its operations).
//
// A search looks at the queue, then takes the file mutex, brings the index up to date
// (EffectCacheFile::Sync) and reads the effect's stream (EffectCacheFile::Read). A save takes the
// file mutex and hands the queue to EffectCacheFile::Save. A save without effects only syncs, and
// only if the last holder of the mutex died. EffectCacheFile.h says which state the file is in at
// each of these steps.
class EffectCacheImpl {
public:
    explicit EffectCacheImpl(const CStr& directory);
    EffectCacheImpl(const EffectCacheImpl&) = delete;
    EffectCacheImpl& operator=(const EffectCacheImpl&) = delete;
    ~EffectCacheImpl();

    void CacheCompiledEffect(const CStr& name, const unsigned char* data, std::uint64_t size,
                             bool permanent);
    bool SearchCachedEffects(const CStr& name, Tab<unsigned char>& data);
    void ListCachedEffects(const char* fileName);
    bool IsEnabled();
    void SetEnabled(bool enabled);
    std::uint64_t GetNumberOfEffectsInFile() const { return index_.Size(); }
    std::uint64_t GetNumberOfEffectsInMemory() const { return queue_.Size(); }
    const CStr& GetDirectory() const { return directory_; }

    // Moves the queued effects into the file. If that fails, the cache is inert and the queue stays
    // as it is. Does not enter the critical section; CacheCompiledEffect is already in it when it
    // calls this.
    void SaveToFile() noexcept;

private:
    void Save(const EffectCacheFile::Lock& lock) noexcept;

    Platform::CriticalSection section_;
    const CStr directory_;  // as it was passed in
    bool enabled_ = true;
    EffectIndex index_;
    EffectQueue queue_;
    EffectCacheFile file_;
};

}  // namespace Quorvel
