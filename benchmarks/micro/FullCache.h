#pragma once

#include <quorvel/Quorvel.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "support/EffectSource.h"
#include "support/ScratchDirectory.h"

namespace Quorvel::Benchmarks {

// An effect cache with count made-up effects in a folder of its own, saved and opened again.
class FullCache {
public:
    explicit FullCache(std::size_t count);

    EffectCacheSystem& Cache() { return *cache_; }
    std::size_t Count() const { return names_.size(); }
    const CStr& Name(std::size_t number) const { return names_[number]; }
    const CStr& AbsentName(std::size_t number) const { return absentNames_[number]; }

    // Queues effects that the file already has, so that the file keeps the same number of effects.
    void QueueAgain(std::size_t first, std::size_t count);

    // Releases the cache and opens it again.
    void Reopen();

private:
    const ScratchDirectory directory_{std::filesystem::temp_directory_path()};
    std::vector<CStr> names_;
    std::vector<CStr> absentNames_;
    Util::RefPtr<EffectCacheSystem> cache_;
};

// Created once for each number of effects.
FullCache& CacheOf(std::int64_t count);

}  // namespace Quorvel::Benchmarks
