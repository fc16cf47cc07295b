#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "effectcache/EffectKey.h"
#include "effectcache/EffectRecord.h"

namespace Quorvel {

#pragma pack(push, 1)
// An effect of the file: the bytes that stand for it in the index stream, of which the name is the
// last. Its length stands in the record and once more in front of it.
struct IndexEntry {
    EffectRecord record;
    std::uint64_t nameLength;

    const unsigned char* Name() const { return reinterpret_cast<const unsigned char*>(this + 1); }
    EffectKeyView Key() const { return {Name(), record.nameLength}; }
    std::uint64_t Size() const { return IndexEntrySize(record.nameLength); }
};
#pragma pack(pop)
static_assert(sizeof(IndexEntry) == IndexEntrySize(0));

// The effects of the file by name: an ordered map in which a name is found by its hash. An entry is
// one piece of memory, the one that the index stream is written from.
//
// Two structures hold the entries. The slots are a hash table with linear probing: an entry stands
// in the first slot that was free from the one its hash names on, and a byte beside it, which is 0
// for an empty slot, tells most other names apart without a look at the entry. `order_` lists all
// entries: the first sortedCount_ of them in the order of keys, new ones behind them in order of
// arrival, and removed ones, which no slot has any more, wherever they were. Settle merges the new
// ones in and frees those that were removed; whoever changes the table settles it before he is
// done.
class EffectTable {
public:
    EffectTable() = default;
    EffectTable(const EffectTable&) = delete;
    EffectTable& operator=(const EffectTable&) = delete;
    ~EffectTable() { Clear(); }

    std::uint64_t Size() const { return size_; }

    // The entry of a name; null when there is none. It stays where it is until it is removed.
    IndexEntry* Find(const EffectKeyView& key) const;

    // Adds an effect, whose record states the length of the name, in place of the one that had the
    // name. Throws std::bad_alloc, changing nothing.
    void Put(const EffectKeyView& key, const EffectRecord& record);

    // Removes an entry of the table.
    void Remove(IndexEntry* entry) noexcept;

    // Puts the entries in order. Throws std::bad_alloc, changing nothing.
    void Settle();

    // All entries in the order of keys. The table must be settled.
    const std::vector<IndexEntry*>& Entries() const { return order_; }

    void Clear() noexcept;

private:
    static constexpr std::size_t kNoSlot = ~std::size_t{0};

    std::size_t FindSlot(const EffectKeyView& key, std::size_t hash) const;
    std::size_t Next(std::size_t slot) const { return (slot + 1) & (slotCount_ - 1); }
    std::size_t HomeOf(std::size_t hash) const { return hash & (slotCount_ - 1); }
    void GrowSlots();
    void Insert(IndexEntry* entry, std::size_t hash) noexcept;

    std::unique_ptr<IndexEntry*[]> slots_;
    std::unique_ptr<std::uint8_t[]> tags_;
    std::size_t slotCount_ = 0;  // 0 or a power of two
    std::size_t size_ = 0;
    std::vector<IndexEntry*> order_;
    std::size_t sortedCount_ = 0;
};

}  // namespace Quorvel
