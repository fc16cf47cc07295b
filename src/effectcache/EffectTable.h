#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "effectcache/EffectKey.h"
#include "effectcache/EntryPool.h"
#include "platform/Assert.h"

namespace Quorvel {

// An ordered map of effects by name. An Entry is one piece of memory that holds the name and
// everything else about the effect: Key() returns its name and Bytes() the whole piece. Entries
// live in the table's arena and keep their address until Pack or Clear.
//
// Two structures hold the entries. The slots are a hash table with linear probing. Each has the
// hash next to the pointer, 0 if it is empty, so that a search can pass over most other names
// without touching their entries. Two lists hold the entries for walks in key order: `sorted_`, and
// `added_` for those that were added after the last sort. Both may still contain entries that were
// removed; Entries() sorts and cleans up.
template <typename Entry>
class EffectTable {
    static_assert(std::is_trivially_copyable_v<Entry> && std::is_trivially_destructible_v<Entry>);

public:
    // The number of effects, and the sum of their entries' bytes.
    std::uint64_t Size() const { return size_; }
    std::uint64_t TotalBytes() const { return bytes_; }

    // The bytes that all entries take in memory, including removed ones.
    std::uint64_t HeldBytes() const { return pool_.Size(); }

    // The entry of a name with that hash; null when there is none.
    Entry* Find(const EffectKey& key, std::uint32_t hash) const {
        const std::size_t slot = FindSlot(key, hash);
        return slot != kNoSlot ? slots_[slot].entry : nullptr;
    }

    // Makes room for `count` more entries: Put then allocates only the entries themselves. Throws
    // std::bad_alloc, changing nothing.
    void Reserve(std::size_t count) {
        if ((size_ + count) * 8 > slots_.size() * 7) { GrowSlots(size_ + count); }
        for (std::vector<Entry*>* const list : {&added_, &removed_}) {
            if (list->capacity() - list->size() < count) {
                list->reserve(std::max({kFewestSlots, 2 * list->size(), list->size() + count}));
            }
        }
    }

    // Makes an entry with Entry::Write and enters it, replacing the one that had the name. Returns
    // it. Throws std::bad_alloc, changing nothing.
    template <typename... Values>
    Entry* Put(const EffectKey& key, std::uint32_t hash, const Values&... values) {
        Reserve(1);
        std::byte* const memory = AllocateAligned(Entry::SizeFor(key, values...));
        Entry* const entry = Entry::Write(memory, key, hash, values...);
        Enter(entry, hash);
        return entry;
    }

    // REQUIRES: Find finds the entry. Throws std::bad_alloc, changing nothing.
    void Remove(Entry* entry) {
        removed_.push_back(entry);
        std::size_t gap = FindSlot(entry->Key(), entry->Key().Hash());
        QUORVEL_ASSERT(gap != kNoSlot && slots_[gap].entry == entry);
        // Entries after the gap that belong in it or before it move up: a search stops at an empty
        // slot, and must not stop before it reaches them.
        for (std::size_t slot = Next(gap); slots_[slot].hash != 0; slot = Next(slot)) {
            if (Distance(slots_[slot].hash, slot) >= Distance(gap, slot)) {
                slots_[gap] = slots_[slot];
                gap = slot;
            }
        }
        slots_[gap].hash = 0;
        bytes_ -= entry->Bytes().size();
        --size_;
    }

    // All entries in key order. The list is valid until the table changes. Throws std::bad_alloc;
    // no entry is lost.
    const std::vector<Entry*>& Entries() {
        DropRemoved();
        MergeAdded();
        QUORVEL_ASSERT(sorted_.size() == size_);
        return sorted_;
    }

    // Copies the entries into a new table if removed ones take more memory than they do. Does
    // nothing if there is no memory for the copy.
    void Pack() noexcept {
        if (HeldBytes() <= 2 * TotalBytes() + kLeastWaste) { return; }
        try {
            EffectTable packed;
            packed.Reserve(size_);
            for (const Entry* const entry : Entries()) {
                const std::span<const unsigned char> bytes = entry->Bytes();
                std::byte* const memory = packed.AllocateAligned(bytes.size());
                std::memcpy(memory, bytes.data(), bytes.size());
                packed.Enter(std::launder(reinterpret_cast<Entry*>(memory)), entry->Key().Hash());
            }
            QUORVEL_ASSERT(packed.Size() == Size() && packed.TotalBytes() == TotalBytes());
            *this = std::move(packed);
        } catch (const std::bad_alloc&) {}
    }

    // Removes all entries and frees the memory.
    void Clear() { *this = EffectTable(); }

private:
#pragma pack(push, 1)
    struct Slot {
        Entry* entry;
        std::uint32_t hash;
    };
#pragma pack(pop)

    static constexpr std::size_t kNoSlot = ~std::size_t{0};
    static constexpr std::size_t kFewestSlots = 64;
    static constexpr std::size_t kLeastWaste = 0x10000;

    static bool IsBefore(const Entry* left, const Entry* right) {
        return left->Key() < right->Key();
    }

    std::byte* AllocateAligned(std::size_t size) {
        constexpr std::size_t alignment = alignof(Entry);
        return pool_.Allocate((size + alignment - 1) / alignment * alignment);
    }

    std::size_t Next(std::size_t slot) const {
        return (slot + 1) & slotMask_;
    }
    std::size_t Distance(std::size_t from, std::size_t to) const {
        return (to - from) & slotMask_;
    }

    std::size_t FindSlot(const EffectKey& key, std::uint32_t hash) const {
        QUORVEL_ASSERT(hash == key.Hash());
        if (slots_.empty()) { return kNoSlot; }
        for (std::size_t slot = hash & slotMask_; slots_[slot].hash != 0; slot = Next(slot)) {
            if (slots_[slot].hash == hash && slots_[slot].entry->Key() == key) { return slot; }
        }
        return kNoSlot;
    }

    void Insert(const Slot& filled) {
        QUORVEL_ASSERT(filled.hash != 0 && size_ < slots_.size());
        std::size_t slot = filled.hash & slotMask_;
        while (slots_[slot].hash != 0) {
            slot = Next(slot);
        }
        slots_[slot] = filled;
    }

    void GrowSlots(std::size_t entries) {
        std::vector<Slot> slots(std::max(kFewestSlots, std::bit_ceil(entries * 8 / 7 + 1)));
        slots.swap(slots_);
        slotMask_ = slots_.size() - 1;
        for (const Slot& slot : slots) {
            if (slot.hash != 0) { Insert(slot); }
        }
    }

    void Enter(Entry* entry, std::uint32_t hash) {
        QUORVEL_ASSERT(added_.size() < added_.capacity() && removed_.size() < removed_.capacity());
        const std::size_t slot = FindSlot(entry->Key(), hash);
        if (slot != kNoSlot) {
            Entry* const replaced = slots_[slot].entry;
            removed_.push_back(replaced);
            bytes_ -= replaced->Bytes().size();
            slots_[slot].entry = entry;
        } else {
            Insert({entry, hash});
            ++size_;
        }
        bytes_ += entry->Bytes().size();
        added_.push_back(entry);
    }

    void DropRemoved() {
        if (removed_.empty()) { return; }
        std::sort(removed_.begin(), removed_.end(), std::less<>());
        for (std::vector<Entry*>* const list : {&sorted_, &added_}) {
            std::erase_if(*list, [&](Entry* entry) {
                return std::binary_search(removed_.begin(), removed_.end(), entry, std::less<>());
            });
        }
        removed_.clear();
    }

    // Usually only a few entries are new, so a binary search for the place of each is fastest.
    void MergeAdded() {
        if (added_.empty()) { return; }
        if (!std::is_sorted(added_.begin(), added_.end(), IsBefore)) {
            std::sort(added_.begin(), added_.end(), IsBefore);
        }
        if (sorted_.empty()) {
            sorted_.swap(added_);
            return;
        }
        std::vector<Entry*> merged;
        merged.reserve(sorted_.size() + added_.size());  // mutation: only saves copying
        auto rest = sorted_.cbegin();
        for (Entry* const entry : added_) {
            const auto place = std::upper_bound(rest, sorted_.cend(), entry, IsBefore);
            merged.insert(merged.end(), rest, place);
            merged.push_back(entry);
            rest = place;
        }
        merged.insert(merged.end(), rest, sorted_.cend());
        sorted_.swap(merged);
        QUORVEL_ASSERT(std::is_sorted(sorted_.begin(), sorted_.end(), IsBefore));
        added_.clear();
    }

    std::vector<Slot> slots_;  // none, or a power of two
    std::size_t slotMask_ = 0;
    std::size_t size_ = 0;
    std::size_t bytes_ = 0;
    std::vector<Entry*> sorted_;
    std::vector<Entry*> added_;
    std::vector<Entry*> removed_;
    EntryPool pool_;
};

}  // namespace Quorvel
