// EffectCacheSystem for a program built with another compiler: the same class, implemented with the
// C library. Without a handle, the C functions act as those of an inert cache do.
#include "quorvel/EffectCacheSystem.h"

#include <quorvel.h>

#include <cstring>
#include <memory>
#include <new>

#include "quorvel/Exceptions.h"

namespace Quorvel {

class EffectCacheImpl {
public:
    CStr directory;
    quorvel_cache* cache;
};

namespace {

quorvel_cache* Open(const CStr& directory) {
    quorvel_cache* cache = nullptr;
    switch (::quorvel_cache_open(directory.data(), &cache)) {
        case QUORVEL_ERROR_SYSTEM:
            throw Win32APICallFailedException(::quorvel_last_system_error());
        case QUORVEL_ERROR_OUT_OF_MEMORY:
            throw std::bad_alloc();
        default:
            return cache;
    }
}

// Puts an effect into the Tab that is the context.
int Keep(void* context, const void* bytes, std::size_t size) noexcept {
    auto& data = *static_cast<Tab<unsigned char>*>(context);
    try {
        data.SetCount(static_cast<int>(size));
    } catch (const std::bad_alloc&) { return 1; }
    std::memcpy(data.Addr(0), bytes, size);
    return 0;
}

}  // namespace

EffectCacheSystem::EffectCacheSystem(const CStr& directory) {
    auto impl = std::make_unique<EffectCacheImpl>(EffectCacheImpl{directory, nullptr});
    impl->cache = Open(directory);
    impl_ = impl.release();
}

EffectCacheSystem::~EffectCacheSystem() {
    ::quorvel_cache_close(impl_->cache);
    delete impl_;
}

void EffectCacheSystem::CacheCompiledEffect(const CStr& name, const unsigned char* data,
                                            std::uint64_t size, bool permanent) {
    ::quorvel_cache_add(impl_->cache, name.data(), name.Length(), data, size, permanent ? 1 : 0);
}

bool EffectCacheSystem::SearchCachedEffects(const CStr& name, Tab<unsigned char>& data) {
    return ::quorvel_cache_visit(impl_->cache, name.data(), name.Length(), &Keep, &data) ==
           QUORVEL_OK;
}

void EffectCacheSystem::ForceSaveToFile() {
    ::quorvel_cache_save(impl_->cache);
}

void EffectCacheSystem::ListCachedEffects(const char* fileName) {
    ::quorvel_cache_list(impl_->cache, fileName);
}

bool EffectCacheSystem::IsEnabled() const {
    return ::quorvel_cache_is_enabled(impl_->cache) != 0;
}

void EffectCacheSystem::SetEnabled(bool enabled) {
    ::quorvel_cache_set_enabled(impl_->cache, enabled ? 1 : 0);
}

std::uint64_t EffectCacheSystem::GetNumberOfEffectsInFile() const {
    return ::quorvel_cache_effects_in_file(impl_->cache);
}

std::uint64_t EffectCacheSystem::GetNumberOfEffectsInMemory() const {
    return ::quorvel_cache_effects_in_memory(impl_->cache);
}

const CStr& EffectCacheSystem::GetCacheFilePath() const {
    return impl_->directory;
}

}  // namespace Quorvel
