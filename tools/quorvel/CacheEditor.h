#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "effectcache/EffectIndex.h"
#include "format/EffectCacheImage.h"
#include "package/PagedFilePackage.h"
#include "tools/quorvel/Cache.h"
#include "vornutil/CStr.h"
#include "vornutil/RefPtr.h"

namespace Quorvel::Tool {

// A message for a change of a file that failed: "<path>: nothing was changed: <reason>".
std::string DescribeFailure(const std::string& path, const std::exception& error);

// An effect's name in the cache, as a string of bytes.
std::string NameOf(const IndexEntry& entry);

// A time in the form in which the library stores it.
EntryTime ToRecord(const Format::EntryTime& time);

// The free bytes that a cache may use on its volume after `reserved` bytes are set aside. At most
// 256 MiB, and seven eighths of them if there are fewer.
std::uint64_t FreeBytes(const Cache& cache, std::uint64_t reserved);

// Throws Failure if the cache's file is missing, with the exit code kNo, or can't be changed.
void RequireWritable(const Cache& cache);

// Changes the effects of a cache: makes all changes between the constructor and Commit, or none.
// Any error becomes a Failure that names the file.
class CacheEditor {
public:
    enum class Missing { Refuse, Create };

    // Opens the cache, or makes an empty one if the file is missing. Changes nothing else. Throws
    // Failure, with the exit code kNo if the file is missing or damaged. The arguments must outlive
    // the editor.
    CacheEditor(Cache& cache, const Cache::Lock& lock, Missing missing);
    CacheEditor(const CacheEditor&) = delete;
    CacheEditor& operator=(const CacheEditor&) = delete;

    // Undoes what was not committed. Removes a file that it made.
    ~CacheEditor();

    // The effects, ordered by name. Valid until the next change.
    const std::vector<IndexEntry*>& Effects() { return index_.Entries(); }

    // The entry of a name; null if there is none. Valid until the next change.
    IndexEntry* Find(const std::string& name) const;

    // Adds an effect, replacing the one that had the name.
    void Store(const std::string& name, const Format::Bytes& data, bool permanent,
               const Format::EntryTime& time);

    void Remove(IndexEntry* entry);
    void SetPermanent(IndexEntry* entry, bool permanent);

    // Evicts effects, least recently used first, until a new one of that size fits. Returns their
    // names. Throws Failure if permanent ones leave too little room.
    std::vector<std::string> MakeRoom(std::uint64_t size);

    // The number of effects that the cache can hold, and the bytes that they may take, with
    // EffectSize for each. If the volume sets the limit, it applies to new effects only: evicting
    // and replacing others makes no room, because the journal takes that space. `replaced` is the
    // number of effects that will be replaced.
    struct Room {
        std::uint64_t effects;
        std::uint64_t bytes;
        bool isLimitedByVolume;
    };
    Room TotalRoom(std::uint64_t replaced);

    // All streams of the cache together must take fewer bytes than this. New ones must fit on the
    // volume, beside the journal and spare pages. (A host leaves more free: as much as the cache
    // takes.)
    std::uint64_t Capacity(std::uint64_t replaced = 0) const;

    // The number of bytes that an effect takes in streams.
    static std::uint64_t EffectSize(std::uint64_t nameLength, std::uint64_t size);

    // Writes the changes, if there are any, and tells the other processes. The editor must not be
    // used afterwards.
    void Commit();

private:
    template <typename Step>
    auto Try(const Step& step);
    void Open(Missing missing);
    void RemoveNewFile() noexcept;
    void Begin();

    Cache& cache_;
    const CStr path_;
    Util::RefPtr<PagedFilePackage> package_;
    EffectIndex index_;
    bool isNew_ = false;  // the file was missing, and nothing has been committed to it
};

}  // namespace Quorvel::Tool
