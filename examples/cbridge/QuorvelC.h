#pragma once

#include <stddef.h>
#include <stdint.h>

// The effect cache as C functions, for programs whose compiler has a different C++ ABI. Names and
// folders are bytes with a length.
#ifdef __cplusplus
extern "C" {
#endif

typedef struct QuorvelCache QuorvelCache;

// Why QuorvelCacheOpen failed.
enum QuorvelFailure {
    kQuorvelSystemRefused = 1,  // Win32APICallFailedException; code is its error code
    kQuorvelOutOfPages = 2,     // OutOfMemoryException
    kQuorvelOutOfMemory = 3,    // std::bad_alloc
};

// Opens the cache of a folder. Returns null on failure, with failure set to one of the above and
// code to the system's error code. Close it with QuorvelCacheClose, which saves.
QuorvelCache* QuorvelCacheOpen(const char* folder, size_t folderLength, uint32_t* failure,
                               uint32_t* code);
void QuorvelCacheClose(QuorvelCache* cache);

// The operations of EffectCacheSystem.
void QuorvelCacheAdd(QuorvelCache* cache, const char* name, size_t nameLength, const void* data,
                     uint64_t size, int permanent);
void QuorvelCacheSave(QuorvelCache* cache);
void QuorvelCacheList(QuorvelCache* cache, const char* fileName);
int QuorvelCacheIsEnabled(const QuorvelCache* cache);
void QuorvelCacheSetEnabled(QuorvelCache* cache, int enabled);
uint64_t QuorvelCacheEffectsInFile(const QuorvelCache* cache);
uint64_t QuorvelCacheEffectsInMemory(const QuorvelCache* cache);

// Returns the bytes of a name and sets size; null when the cache does not have them. Free them with
// QuorvelFree.
void* QuorvelCacheSearch(QuorvelCache* cache, const char* name, size_t nameLength, uint64_t* size);
void QuorvelFree(void* data);

#ifdef __cplusplus
}
#endif
