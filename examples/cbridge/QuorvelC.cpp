#include "QuorvelC.h"

#include <quorvel/Quorvel.h>

#include <cstdlib>
#include <cstring>
#include <new>

struct QuorvelCache {
    Util::RefPtr<Quorvel::EffectCacheSystem> system;
};

QuorvelCache* QuorvelCacheOpen(const char* folder, size_t folderLength, uint32_t* failure,
                               uint32_t* code) {
    *failure = 0;
    *code = 0;
    try {
        return new QuorvelCache{new Quorvel::EffectCacheSystem(CStr(folder, folderLength))};
    } catch (const Quorvel::Win32APICallFailedException& error) {
        *failure = kQuorvelSystemRefused;
        *code = error.errorCode;
    } catch (const Quorvel::OutOfMemoryException&) {
        *failure = kQuorvelOutOfPages;
    } catch (const std::bad_alloc&) { *failure = kQuorvelOutOfMemory; }
    return nullptr;
}

void QuorvelCacheClose(QuorvelCache* cache) {
    delete cache;
}

// Like the cache itself, these ignore or do not find an effect when memory runs out.

void QuorvelCacheAdd(QuorvelCache* cache, const char* name, size_t nameLength, const void* data,
                     uint64_t size, int permanent) {
    try {
        cache->system->CacheCompiledEffect(
            CStr(name, nameLength), static_cast<const unsigned char*>(data), size, permanent != 0);
    } catch (const std::bad_alloc&) {}
}

void* QuorvelCacheSearch(QuorvelCache* cache, const char* name, size_t nameLength, uint64_t* size) {
    try {
        Tab<unsigned char> found;
        if (!cache->system->SearchCachedEffects(CStr(name, nameLength), found)) { return nullptr; }
        *size = static_cast<uint64_t>(found.Count());
        void* const copy = std::malloc(static_cast<size_t>(*size));
        return copy ? std::memcpy(copy, found.Addr(0), static_cast<size_t>(*size)) : nullptr;
    } catch (const std::bad_alloc&) { return nullptr; }
}

void QuorvelFree(void* data) {
    std::free(data);
}

void QuorvelCacheSave(QuorvelCache* cache) {
    cache->system->ForceSaveToFile();
}

void QuorvelCacheList(QuorvelCache* cache, const char* fileName) {
    cache->system->ListCachedEffects(fileName);
}

int QuorvelCacheIsEnabled(const QuorvelCache* cache) {
    return cache->system->IsEnabled() ? 1 : 0;
}

void QuorvelCacheSetEnabled(QuorvelCache* cache, int enabled) {
    cache->system->SetEnabled(enabled != 0);
}

uint64_t QuorvelCacheEffectsInFile(const QuorvelCache* cache) {
    return cache->system->GetNumberOfEffectsInFile();
}

uint64_t QuorvelCacheEffectsInMemory(const QuorvelCache* cache) {
    return cache->system->GetNumberOfEffectsInMemory();
}
