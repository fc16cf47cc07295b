#include "quorvel/EffectCacheSystem.h"

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "Status.h"
#include "vornutil/RefPtr.h"

using Quorvel::EffectCacheSystem;
using namespace Quorvel::C;

struct quorvel_cache {
    // Its own switch stays on, so that its IsEnabled says whether the cache is usable.
    Util::RefPtr<EffectCacheSystem> system;
    std::atomic<bool> enabled{true};
};

namespace {

void RequireCache(const quorvel_cache* cache) {
    Require(cache, "the cache must not be null");
}

CStr ToName(const void* name, std::size_t size) {
    Require(name, "the name must not be null");
    Require(size >= 1 && size <= QUORVEL_LARGEST_NAME, "a name has 1 to 65536 bytes");
    return CStr(static_cast<const char*>(name), size);
}

quorvel_status CheckUsable(const quorvel_cache* cache) {
    return cache->system->IsEnabled() ? QUORVEL_OK : Fail(QUORVEL_ERROR_UNUSABLE);
}

// Finds an effect and calls an operation with its bytes.
template <typename Operation>
quorvel_status Find(quorvel_cache* cache, const void* name, std::size_t nameSize,
                    const Operation& operation) {
    RequireCache(cache);
    Tab<unsigned char> effect;
    if (cache->system->SearchCachedEffects(ToName(name, nameSize), effect)) {
        return operation(effect.Addr(0), static_cast<std::size_t>(effect.Count()));
    }
    const quorvel_status status = CheckUsable(cache);
    return status == QUORVEL_OK ? Fail(QUORVEL_ERROR_NOT_FOUND) : status;
}

}  // namespace

quorvel_status quorvel_cache_open(const char* directory, quorvel_cache** cache) {
    if (cache) { *cache = nullptr; }
    return Run([&] {
        Require(cache, "the place for the cache must not be null");
        Require(directory && *directory, "the directory must not be null or empty");
        const Util::RefPtr<EffectCacheSystem> system(new EffectCacheSystem(directory));
        if (!system->IsEnabled()) {
            return Fail(QUORVEL_ERROR_UNUSABLE,
                        "its directory is missing or belongs to another user, or its file can't be "
                        "read and written");
        }
        *cache = new quorvel_cache{system};
        return QUORVEL_OK;
    });
}

void quorvel_cache_close(quorvel_cache* cache) {
    delete cache;
}

quorvel_status quorvel_cache_add(quorvel_cache* cache, const void* name, size_t name_size,
                                 const void* data, size_t size, int permanent) {
    return Run([&] {
        RequireCache(cache);
        Require(data, "the data must not be null");
        Require(size >= 1 && size <= QUORVEL_LARGEST_EFFECT, "an effect has 1 to 1048576 bytes");
        cache->system->CacheCompiledEffect(
            ToName(name, name_size), static_cast<const unsigned char*>(data), size, permanent != 0);
        return CheckUsable(cache);
    });
}

quorvel_status quorvel_cache_find(quorvel_cache* cache, const void* name, size_t name_size,
                                  void* buffer, size_t capacity, size_t* size) {
    if (size) { *size = 0; }
    return Run([&] {
        Require(size, "the place for the size must not be null");
        Require(buffer || capacity == 0, "the buffer must not be null");
        return Find(cache, name, name_size, [&](const void* effect, std::size_t effectSize) {
            return CopyOut(effect, effectSize, buffer, capacity, size);
        });
    });
}

quorvel_status quorvel_cache_visit(quorvel_cache* cache, const void* name, size_t name_size,
                                   quorvel_visitor visitor, void* context) {
    return Run([&] {
        Require(visitor, "the visitor must not be null");
        return Find(cache, name, name_size, [&](const void* effect, std::size_t effectSize) {
            const bool stops = visitor(context, effect, effectSize) != 0;
            return stops ? Fail(QUORVEL_ERROR_STOPPED) : QUORVEL_OK;
        });
    });
}

quorvel_status quorvel_cache_save(quorvel_cache* cache) {
    return Run([&] {
        RequireCache(cache);
        cache->system->ForceSaveToFile();
        return CheckUsable(cache);
    });
}

quorvel_status quorvel_cache_list(quorvel_cache* cache, const char* file_name) {
    return Run([&] {
        RequireCache(cache);
        Require(file_name, "the file name must not be null");
        if (const quorvel_status status = CheckUsable(cache); status != QUORVEL_OK) {
            return status;
        }
        // EffectCacheSystem does not report a file that it can't open.
        std::FILE* const file = std::fopen(file_name, "w");
        if (!file) { throw Quorvel::FileIOException(static_cast<std::uint32_t>(errno)); }
        std::fclose(file);
        cache->system->ListCachedEffects(file_name);
        return QUORVEL_OK;
    });
}

int quorvel_cache_is_enabled(const quorvel_cache* cache) {
    return cache && cache->enabled && cache->system->IsEnabled() ? 1 : 0;
}

void quorvel_cache_set_enabled(quorvel_cache* cache, int enabled) {
    if (cache) { cache->enabled = enabled != 0; }
}

uint64_t quorvel_cache_effects_in_file(const quorvel_cache* cache) {
    return cache ? cache->system->GetNumberOfEffectsInFile() : 0;
}

uint64_t quorvel_cache_effects_in_memory(const quorvel_cache* cache) {
    return cache ? cache->system->GetNumberOfEffectsInMemory() : 0;
}

const char* quorvel_cache_directory(const quorvel_cache* cache) {
    return cache ? cache->system->GetCacheFilePath().data() : "";
}
