#pragma once

#include <quorvel/Quorvel.h>

#include <stdexcept>
#include <string>

#include "floor/Transfers.h"

namespace Quorvel::Benchmarks {

// Runs the task on the effect cache. Each step that walks over the effects calls `after` after each
// of them.
class CacheSteps {
public:
    CacheSteps(const FloorTask& task, const std::string& directory)
        : task_(task), directory_(directory.c_str()) {
        Open();
    }

    // Saves all effects and releases the cache.
    template <typename After>
    void SaveAll(const After& after) {
        for (const std::size_t number : task_.saveOrder) {
            const Effect& effect = task_.effects[number];
            cache_->CacheCompiledEffect(effect.name, effect.bytes.data(), effect.bytes.size(),
                                        false);
            after();
        }
        cache_->ForceSaveToFile();
        if (cache_->GetNumberOfEffectsInFile() != task_.effects.size()) {
            throw std::runtime_error("the cache did not save all effects");
        }
        cache_.Reset();
    }

    void Open() {
        cache_ = Util::RefPtr<EffectCacheSystem>(new EffectCacheSystem(directory_));
        if (!cache_->IsEnabled()) { throw std::runtime_error("the cache is inert"); }
    }

    template <typename After>
    void FindAll(const After& after) {
        for (const std::size_t number : task_.searchOrder) {
            const Effect& effect = task_.effects[number];
            if (!cache_->SearchCachedEffects(effect.name, found_) ||
                static_cast<std::size_t>(found_.Count()) != effect.bytes.size()) {
                throw std::runtime_error("the cache did not find all effects");
            }
            after();
        }
    }

private:
    const FloorTask& task_;
    CStr directory_;
    Util::RefPtr<EffectCacheSystem> cache_;
    Tab<unsigned char> found_;
};

}  // namespace Quorvel::Benchmarks
