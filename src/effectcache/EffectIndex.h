#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "effectcache/EffectKey.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/EffectTable.h"
#include "effectcache/IndexEntry.h"
#include "package/PagedFilePackage.h"
#include "quorvel/IDataStream.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// Which effects are in the cache's file, and in which stream each one is. In the file this is the
// cache's block of the header data and the index stream; in memory, a table by name.
//
// Every operation that takes a package REQUIRES that the file mutex is held.
class EffectIndex {
public:
    std::uint64_t Size() const { return table_.Size(); }

    // The bytes that the entries take in the index stream.
    std::uint64_t TotalBytes() const { return table_.TotalBytes(); }

    // The entry of a name with that hash; null when there is none.
    IndexEntry* Find(const EffectKey& name, std::uint32_t hash) const {
        return table_.Find(name, hash);
    }

    // Adds an effect, replacing the one that had the name. Throws std::bad_alloc, changing nothing.
    void Put(const EffectKey& name, std::uint32_t hash, const EffectRecord& record) {
        table_.Put(name, hash, record);
    }

    // REQUIRES: the entry is in the index. Throws std::bad_alloc, changing nothing.
    void Remove(IndexEntry* entry) { table_.Remove(entry); }

    // All entries in key order. The list is valid until the index changes. Throws std::bad_alloc.
    const std::vector<IndexEntry*>& Entries() { return table_.Entries(); }

    // The entries that may be evicted, the least recently used first. Throws std::bad_alloc.
    [[nodiscard]] std::vector<IndexEntry*> EvictionOrder();

    void Clear();

    // Writes the header and an empty index stream into a new package. REQUIRES: the index is empty.
    // Throws FileIOException, and what the package throws.
    void Start(PagedFilePackage& package);

    // Replaces everything with the package's index. Leaves out effects whose stream is missing or
    // is named by two records. False when the package is not sound or the header or the index is
    // damaged; the index is then unspecified. Throws what the package throws.
    [[nodiscard]] bool Load(PagedFilePackage& package);

    // Writes the index stream and the header. Entries may move: pointers to them are then invalid.
    // Throws FileIOException, and what the package throws.
    void Write(PagedFilePackage& package);

private:
    [[nodiscard]] bool ReadHeader(PagedFilePackage& package);
    std::vector<IndexEntry*> ReadEntries(IDataStream& stream);
    bool ReadMore(IDataStream& stream, std::vector<std::byte>& bytes);
    void DropAmbiguousEntries(const PagedFilePackage& package, std::span<IndexEntry* const> read);
    Util::RefPtr<IDataStream> OpenForWriting(PagedFilePackage& package, std::uint64_t size);
    void WriteHeader(PagedFilePackage& package);

    CacheHeader header_ = {};
    EffectTable<IndexEntry> table_;
};

}  // namespace Quorvel
