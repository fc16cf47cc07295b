#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "effectcache/EffectKey.h"

namespace Quorvel {

// An ordered map of effects in which a name is found by its hash. An Entry is one piece of memory
// that holds the name and whatever goes with it: Key() tells its name, and Free disposes of it. The
// table owns its entries.
//
// Two structures hold them. The slots are a hash table with linear probing: an entry stands in the
// first slot that was free from the one its hash names on, and the hashes beside the slots, 0 for
// an empty one, tell other names apart without a look at the entry. `order_` lists all entries: the
// first sortedCount_ of them in the order of keys, behind them new ones in order of arrival, and
// anywhere those that were removed, which no slot has any more. Settle merges the new ones in and
// frees the removed ones.
template <typename Entry>
class EffectTable {
public:
    struct FreeEntry {
        void operator()(Entry* entry) const noexcept { Entry::Free(entry); }
    };
    using Owner = std::unique_ptr<Entry, FreeEntry>;

    EffectTable() = default;
    EffectTable(const EffectTable&) = delete;
    EffectTable& operator=(const EffectTable&) = delete;
    ~EffectTable() { Clear(); }

    std::uint64_t Size() const { return size_; }

    // The entry of a name; null when there is none. It stays where it is until it is removed. Who
    // looks into several tables hashes the name once.
    Entry* Find(const EffectKey& key) const { return Find(key, key.Hash()); }
    Entry* Find(const EffectKey& key, std::uint32_t hash) const {
        const std::size_t slot = FindSlot(key, hash);
        return slot != kNoSlot ? slots_[slot] : nullptr;
    }

    // Makes room for so many entries at once. Throws std::bad_alloc, changing nothing.
    void Reserve(std::size_t count) {
        order_.reserve(count);
        if (count * 8 > slotCount_ * 7) {
            GrowSlots(count);
        }
    }

    // Adds an entry, in place of the one that had the name. Throws std::bad_alloc, changing
    // nothing.
    void Put(Owner entry) {
        const EffectKey key = entry->Key();
        const std::uint32_t hash = key.Hash();
        if ((size_ + 1) * 8 > slotCount_ * 7) {
            GrowSlots(size_ + 1);
        }
        if (order_.size() == order_.capacity()) {
            order_.reserve(std::max(kFewestSlots, order_.size() + order_.size() / 4));
        }
        const std::size_t slot = FindSlot(key, hash);
        if (slot != kNoSlot) {
            removed_.push_back(slots_[slot]);
        }
        const bool isInOrder =
            sortedCount_ == order_.size() && (order_.empty() || order_.back()->Key() < key);
        order_.push_back(entry.get());
        sortedCount_ += isInOrder ? 1 : 0;
        if (slot != kNoSlot) {
            slots_[slot] = entry.release();
        } else {
            Insert(entry.release(), hash);
            ++size_;
        }
    }

    // Removes an entry of the table. Throws std::bad_alloc, changing nothing.
    void Remove(Entry* entry) {
        removed_.push_back(entry);
        std::size_t gap = FindSlot(entry->Key(), entry->Key().Hash());
        // Entries behind the gap that could stand in it move up, so that none is cut off from the
        // slot that its hash names.
        for (std::size_t slot = Next(gap); hashes_[slot] != 0; slot = Next(slot)) {
            if (Distance(hashes_[slot], slot) >= Distance(gap, slot)) {
                slots_[gap] = slots_[slot];
                hashes_[gap] = hashes_[slot];
                gap = slot;
            }
        }
        hashes_[gap] = 0;
        --size_;
    }

    // Puts the entries in order. Throws std::bad_alloc, changing nothing.
    void Settle() {
        if (sortedCount_ == order_.size() && removed_.empty()) {
            return;
        }
        std::vector<Entry*> settled;
        settled.reserve(size_);
        std::sort(removed_.begin(), removed_.end());
        const auto keep = [&](Entry* entry) {
            if (!removed_.empty() && std::binary_search(removed_.begin(), removed_.end(), entry)) {
                Entry::Free(entry);
            } else {
                settled.push_back(entry);
            }
        };
        const auto isBefore = [](const Entry* left, const Entry* right) {
            return left->Key() < right->Key();
        };
        const auto added = order_.begin() + static_cast<std::ptrdiff_t>(sortedCount_);
        std::sort(added, order_.end(), isBefore);
        // As a rule few are new among many: the places of the new ones are searched for.
        auto old = order_.begin();
        for (auto fresh = added; fresh != order_.end(); ++fresh) {
            const auto place = std::upper_bound(old, added, *fresh, isBefore);
            std::for_each(old, place, keep);
            keep(*fresh);
            old = place;
        }
        std::for_each(old, added, keep);
        order_.swap(settled);
        sortedCount_ = order_.size();
        removed_.clear();
    }

    // All entries in the order of keys. The table must be settled.
    const std::vector<Entry*>& Entries() const { return order_; }

    void Clear() noexcept {
        std::for_each(order_.begin(), order_.end(), Entry::Free);
        order_ = {};
        removed_ = {};
        sortedCount_ = 0;
        slots_.reset();
        hashes_.reset();
        slotCount_ = 0;
        size_ = 0;
    }

private:
    static constexpr std::size_t kNoSlot = ~std::size_t{0};
    static constexpr std::size_t kFewestSlots = 64;

    std::size_t Next(std::size_t slot) const { return (slot + 1) & (slotCount_ - 1); }
    std::size_t Distance(std::size_t from, std::size_t to) const {
        return (to - from) & (slotCount_ - 1);
    }

    std::size_t FindSlot(const EffectKey& key, std::uint32_t hash) const {
        if (slotCount_ == 0) {
            return kNoSlot;
        }
        for (std::size_t slot = hash & (slotCount_ - 1); hashes_[slot] != 0; slot = Next(slot)) {
            if (hashes_[slot] == hash && slots_[slot]->Key() == key) {
                return slot;
            }
        }
        return kNoSlot;
    }

    void Insert(Entry* entry, std::uint32_t hash) noexcept {
        std::size_t slot = hash & (slotCount_ - 1);
        while (hashes_[slot] != 0) {
            slot = Next(slot);
        }
        slots_[slot] = entry;
        hashes_[slot] = hash;
    }

    void GrowSlots(std::size_t entries) {
        const std::size_t oldCount = slotCount_;
        const std::size_t newCount = std::max(kFewestSlots, std::bit_ceil(entries * 8 / 7 + 1));
        std::unique_ptr<Entry*[]> slots(new Entry*[newCount]);
        std::unique_ptr<std::uint32_t[]> hashes(new std::uint32_t[newCount]());
        slots.swap(slots_);
        hashes.swap(hashes_);
        slotCount_ = newCount;
        for (std::size_t slot = 0; slot < oldCount; ++slot) {
            if (hashes[slot] != 0) {
                Insert(slots[slot], hashes[slot]);
            }
        }
    }

    std::unique_ptr<Entry*[]> slots_;
    std::unique_ptr<std::uint32_t[]> hashes_;
    std::size_t slotCount_ = 0;  // 0 or a power of two
    std::size_t size_ = 0;
    std::vector<Entry*> order_;
    std::size_t sortedCount_ = 0;
    std::vector<Entry*> removed_;
};

}  // namespace Quorvel
