#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "vornutil/CStr.h"
#include "vornutil/RefObject.h"
#include "vornutil/Tab.h"

namespace Quorvel {

class EffectCacheImpl;

// A cache of compiled shader effects: bytes by name, kept in memory, saved in batches to the file
// "vornFxoCache.dat" in a cache directory, and shared with every process that opens the same
// directory. Made with new and held through a Util::RefPtr.
//
// Processes find each other by the text of the path. All of them must spell the directory alike,
// best as an absolute path without links: two that spell it in two ways damage each other's file.
//
// A cache whose file can't be used is inert: it ignores new effects and finds none. IsEnabled
// tells. Nothing but a new EffectCacheSystem brings it back. No operation throws.
//
// Any thread may call CacheCompiledEffect, SearchCachedEffects, IsEnabled and SetEnabled at any
// time. The others want a quiet moment: no other call on the same object may run beside them.
class QUORVEL_API EffectCacheSystem : public Util::ARefObject {
public:
    // Opens the cache of a directory, which must exist, or makes an empty one there when the file
    // is missing, damaged, of another version or can't be read. Evicts effects, the ones longest
    // unused first, while they come to 256 MiB or to what is free on the volume. A directory and the
    // same one with a trailing path separator share a cache. An empty directory makes an inert cache.
    // Throws Win32APICallFailedException or OutOfMemoryException when the objects that processes
    // share can't be made, std::bad_alloc.
    explicit EffectCacheSystem(const CStr& directory);

    // Queues a copy of size bytes at data under a name; what the name had before is replaced.
    // Permanent effects are never evicted. Ignored when data is null, when size is not 1 to
    // 1048576, when the name is not 1 to 65536 bytes long, or when memory runs out. Saves when the
    // queued effects come to 2 MiB.
    void CacheCompiledEffect(const CStr& name, const unsigned char* data, std::uint64_t size,
                             bool permanent);

    // Fills data with the bytes of a name and returns true; false when the cache does not have
    // them, or has them no longer intact. data is unspecified after false. An effect found in the
    // file counts as used now, which makes it the last to be evicted.
    bool SearchCachedEffects(const CStr& name, Tab<unsigned char>& data);

    // Saves what is queued now, evicting others for it; what there is no room for is dropped. When
    // that fails the cache becomes inert. Other processes lose the saved effects then too if the file
    // was half written, and keep them if nothing of the save has reached it: a file holds up to
    // 65534 effects, and a save of more fails in this way.
    void ForceSaveToFile();

    // Writes a line for each saved effect to a text file, in order of name length, then of name:
    // "Name: ", the name, " Size: ", bytes, " Permanent: ", 0 or 1. Nothing happens when the file
    // can't be opened.
    void ListCachedEffects(const char* fileName);

    // The host's own switch, on at first: it says whether the host means to use the cache, and
    // changes nothing here. IsEnabled is false whatever the switch says while the cache is inert.
    bool IsEnabled() const;
    void SetEnabled(bool enabled);

    // Number of effects in the file, as far as this object knows, and of those queued.
    std::uint64_t GetNumberOfEffectsInFile() const;
    std::uint64_t GetNumberOfEffectsInMemory() const;

    // The directory as it was passed to the constructor.
    const CStr& GetCacheFilePath() const;

protected:
    // Saves what is queued and leaves the file.
    ~EffectCacheSystem() override;

private:
    EffectCacheImpl* impl_;
};

}  // namespace Quorvel
