// EffectCacheSystem for a program built with another compiler: the same class, implemented with the
// C functions of a library that contains the real one.
#include "quorvel/EffectCacheSystem.h"

#include <cstring>
#include <new>

#include "QuorvelC.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

class EffectCacheImpl {
public:
    CStr directory;
    QuorvelCache* cache;
};

namespace {

QuorvelCache* Open(const CStr& directory) {
    std::uint32_t failure = 0;
    std::uint32_t code = 0;
    if (QuorvelCache* const cache =
            ::QuorvelCacheOpen(directory.data(), directory.Length(), &failure, &code)) {
        return cache;
    }
    switch (failure) {
        case kQuorvelSystemRefused:
            throw Win32APICallFailedException(code);
        case kQuorvelOutOfPages:
            throw OutOfMemoryException();
        default:
            throw std::bad_alloc();
    }
}

}  // namespace

EffectCacheSystem::EffectCacheSystem(const CStr& directory)
    : impl_(new EffectCacheImpl{directory, nullptr}) {
    try {
        impl_->cache = Open(directory);
    } catch (...) {
        delete impl_;
        throw;
    }
}

EffectCacheSystem::~EffectCacheSystem() {
    ::QuorvelCacheClose(impl_->cache);
    delete impl_;
}

void EffectCacheSystem::CacheCompiledEffect(const CStr& name, const unsigned char* data,
                                            std::uint64_t size, bool permanent) {
    ::QuorvelCacheAdd(impl_->cache, name.data(), name.Length(), data, size, permanent ? 1 : 0);
}

bool EffectCacheSystem::SearchCachedEffects(const CStr& name, Tab<unsigned char>& data) {
    std::uint64_t size = 0;
    void* const found = ::QuorvelCacheSearch(impl_->cache, name.data(), name.Length(), &size);
    if (!found) { return false; }
    bool taken = false;
    try {
        data.SetCount(static_cast<int>(size));
        std::memcpy(data.Addr(0), found, static_cast<std::size_t>(size));
        taken = true;
    } catch (const std::bad_alloc&) {}
    ::QuorvelFree(found);
    return taken;
}

void EffectCacheSystem::ForceSaveToFile() {
    ::QuorvelCacheSave(impl_->cache);
}

void EffectCacheSystem::ListCachedEffects(const char* fileName) {
    ::QuorvelCacheList(impl_->cache, fileName);
}

bool EffectCacheSystem::IsEnabled() const {
    return ::QuorvelCacheIsEnabled(impl_->cache) != 0;
}

void EffectCacheSystem::SetEnabled(bool enabled) {
    ::QuorvelCacheSetEnabled(impl_->cache, enabled ? 1 : 0);
}

std::uint64_t EffectCacheSystem::GetNumberOfEffectsInFile() const {
    return ::QuorvelCacheEffectsInFile(impl_->cache);
}

std::uint64_t EffectCacheSystem::GetNumberOfEffectsInMemory() const {
    return ::QuorvelCacheEffectsInMemory(impl_->cache);
}

const CStr& EffectCacheSystem::GetCacheFilePath() const {
    return impl_->directory;
}

}  // namespace Quorvel
