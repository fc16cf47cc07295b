#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <type_traits>
#include <vector>

#include "effectcache/EffectKey.h"
#include "effectcache/EntryPool.h"
#include "platform/Prefetch.h"

namespace Quorvel {

// An ordered map of effects in which a name is found by its hash. An Entry is one piece of memory
// that holds the name and whatever goes with it: Key() tells its name, Bytes() the whole of it. The
// memory comes from the table's pool.
//
// Two structures hold the entries. The slots are a hash table with linear probing: an entry stands
// in the first slot that was free from the one its hash names on, and the hash beside it, 0 for an
// empty slot, tells other names apart without a look at the entry. `order_` lists all entries: the
// first sortedCount_ of them in the order of keys, behind them new ones in order of arrival, and
// anywhere those that were removed, which no slot has any more. Of several entries with one name
// the last is the one that is in the table, if any is. Settle merges the new ones in and drops the
// removed ones.
template <typename Entry>
class EffectTable {
    static_assert(std::is_trivially_copyable_v<Entry> && std::is_trivially_destructible_v<Entry>);

public:
    EffectTable() = default;
    EffectTable(const EffectTable&) = delete;
    EffectTable& operator=(const EffectTable&) = delete;

    // The number of entries that Find finds.
    std::uint64_t Size() const { return size_; }

    // The bytes of those entries.
    std::uint64_t TotalBytes() const { return bytes_; }

    // The bytes of all entries that the table has memory for, removed ones included.
    std::uint64_t HeldBytes() const { return pool_.Size(); }

    // The entry of a name, of which the caller knows the hash; null when there is none. It stays
    // where it is until Pack, Clear or Recycle.
    Entry* Find(const EffectKey& key, std::uint32_t hash) const {
        const std::size_t slot = FindSlot(key, hash);
        return slot != kNoSlot ? slots_[slot].entry : nullptr;
    }

    // Makes room for so many entries at once. Throws std::bad_alloc, changing nothing.
    void Reserve(std::size_t count) {
        order_.reserve(count);
        if (count * 8 > slotCount_ * 7) {
            GrowSlots(count);
        }
    }

    // Memory for an entry of that many bytes, to be filled and put into the table. It stays the
    // table's until Clear or Recycle, put or not. Throws std::bad_alloc, changing nothing.
    void* Allocate(std::size_t size) { return pool_.Allocate(PieceSize(size)); }

    // Memory in which entries may be filled before Allocate gives it out: EntryPool::Room. For
    // entries that may stand at any address.
    std::span<std::byte> Room(std::size_t size, std::size_t kept) {
        static_assert(alignof(Entry) == 1);
        return pool_.Room(size, kept);
    }

    // Makes room for one entry, so that the next Put can't fail: to be called before the entry's
    // memory is taken. Throws std::bad_alloc; no entry is lost.
    void MakeRoom() {
        EnterAppended();
        MakeRoomForSlots(1);
        if (order_.size() == order_.capacity()) {
            order_.reserve(std::max(kFewestSlots, order_.size() + order_.size() / 4));
        }
        if (removed_.size() == removed_.capacity()) {
            removed_.reserve(std::max(kFewestSlots, 2 * removed_.size()));
        }
    }

    // Adds an entry, in place of the one that had the name. Throws std::bad_alloc, changing
    // nothing.
    void Put(Entry* entry, std::uint32_t hash) {
        MakeRoom();
        order_.push_back(entry);
        Enter(hash);
    }

    // Adds an entry as Put does, except that it need not be found or counted before the next Put or
    // Settle: the fast way to add many. Throws std::bad_alloc, without adding it.
    void Append(Entry* entry) {
        if (order_.size() - enteredCount_ == kBatch) {
            EnterAppended();
        }
        order_.push_back(entry);
    }

    // Removes an entry that Find finds. Throws std::bad_alloc, changing nothing.
    void Remove(Entry* entry) {
        removed_.push_back(entry);
        std::size_t gap = FindSlot(entry->Key(), entry->Key().Hash());
        assert(slots_[gap].entry == entry);
        // Entries behind the gap that could stand in it move up, so that none is cut off from the
        // slot that its hash names.
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

    // Puts the entries in order. Throws std::bad_alloc; no entry is lost.
    void Settle() {
        EnterAppended();
        if (sortedCount_ == order_.size() && removed_.empty()) {
            return;
        }
        MergeAdded();
        DropRemoved();
        sortedCount_ = order_.size();
        enteredCount_ = order_.size();
        removed_.clear();
    }

    // Moves the entries of a settled table together, in the order of keys, if what was removed
    // takes more memory than they do. Without memory for that they stay where they are.
    void Pack() noexcept {
        if (HeldBytes() <= 2 * TotalBytes() + kLeastWaste) {
            return;
        }
        EntryPool pool;
        std::vector<Entry*> moved;
        try {
            moved.reserve(order_.size());
            for (const Entry* const entry : order_) {
                const auto bytes = entry->Bytes();
                void* const memory = pool.Allocate(PieceSize(bytes.size()));
                moved.push_back(static_cast<Entry*>(std::memcpy(memory, entry, bytes.size())));
            }
        } catch (const std::bad_alloc&) {
            return;
        }
        // Where an entry went is left in its old place for the slots to find.
        static_assert(sizeof(Entry) >= sizeof(Entry*));
        for (std::size_t index = 0; index < order_.size(); ++index) {
            std::memcpy(static_cast<void*>(order_[index]), &moved[index], sizeof(Entry*));
        }
        for (std::size_t slot = 0; slot < slotCount_; ++slot) {
            if (slots_[slot].hash != 0) {
                Entry* entry;
                std::memcpy(&entry, static_cast<const void*>(slots_[slot].entry), sizeof entry);
                slots_[slot].entry = entry;
            }
        }
        order_.swap(moved);
        pool_.Swap(pool);
    }

    // All entries in the order of keys. The table must be settled.
    const std::vector<Entry*>& Entries() const { return order_; }

    void Clear() noexcept {
        std::vector<Entry*>().swap(order_);
        std::vector<Entry*>().swap(removed_);
        slots_.reset();
        slotCount_ = 0;
        pool_.Clear();
        Forget();
    }

    // Clears the table, which keeps memory for about as many entries as it had: for one that is
    // filled again at once. DropSpare gives back what of it holds no entry by then, except that the
    // slots stay unless the table is empty.
    void Recycle() noexcept {
        order_.clear();
        removed_.clear();
        std::fill_n(slots_.get(), slotCount_, Slot{});
        pool_.Recycle();
        Forget();
    }
    void DropSpare() noexcept {
        pool_.DropSpare();
        if (order_.empty()) {
            Clear();
        }
    }

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
    static constexpr std::size_t kBatch = 16;

    static constexpr std::size_t PieceSize(std::size_t size) {
        return (size + alignof(Entry) - 1) / alignof(Entry) * alignof(Entry);
    }

    void Forget() noexcept {
        sortedCount_ = 0;
        enteredCount_ = 0;
        size_ = 0;
        bytes_ = 0;
    }

    static bool IsBefore(const Entry* left, const Entry* right) {
        return left->Key() < right->Key();
    }

    std::size_t Next(std::size_t slot) const {
        return (slot + 1) & (slotCount_ - 1);
    }
    std::size_t Distance(std::size_t from, std::size_t to) const {
        return (to - from) & (slotCount_ - 1);
    }

    std::size_t FindSlot(const EffectKey& key, std::uint32_t hash) const {
        if (slotCount_ == 0) {
            return kNoSlot;
        }
        for (std::size_t slot = hash & (slotCount_ - 1); slots_[slot].hash != 0;
             slot = Next(slot)) {
            if (slots_[slot].hash == hash && slots_[slot].entry->Key() == key) {
                return slot;
            }
        }
        return kNoSlot;
    }

    void Insert(const Slot& filled) noexcept {
        std::size_t slot = filled.hash & (slotCount_ - 1);
        while (slots_[slot].hash != 0) {
            slot = Next(slot);
        }
        slots_[slot] = filled;
    }

    void MakeRoomForSlots(std::size_t added) {
        if ((size_ + added) * 8 > slotCount_ * 7) {
            GrowSlots(size_ + added);
        }
    }

    void GrowSlots(std::size_t entries) {
        const std::size_t oldCount = slotCount_;
        const std::size_t newCount = std::max(kFewestSlots, std::bit_ceil(entries * 8 / 7 + 1));
        std::unique_ptr<Slot[]> slots(new Slot[newCount]());
        slots.swap(slots_);
        slotCount_ = newCount;
        for (std::size_t slot = 0; slot < oldCount; ++slot) {
            if (slots[slot].hash != 0) {
                Insert(slots[slot]);
            }
        }
    }

    // Gives the first entry without a slot its slot; there is room for it. Throws std::bad_alloc,
    // changing nothing, but not when removed_ has room too.
    void Enter(std::uint32_t hash) {
        Entry* const entry = order_[enteredCount_];
        const EffectKey key = entry->Key();
        const std::size_t slot = FindSlot(key, hash);
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
        const bool isInOrder = enteredCount_ == 0 || order_[enteredCount_ - 1]->Key() < key;
        sortedCount_ += sortedCount_ == enteredCount_ && isInOrder ? 1 : 0;
        ++enteredCount_;
    }

    // The slots of a batch are fetched from memory together, while the entries, which have just
    // been filled, are still at hand.
    void EnterAppended() {
        if (enteredCount_ == order_.size()) {
            return;
        }
        MakeRoomForSlots(order_.size() - enteredCount_);
        std::array<std::uint32_t, kBatch> hashes;
        while (enteredCount_ < order_.size()) {
            const std::size_t count = std::min(hashes.size(), order_.size() - enteredCount_);
            for (std::size_t index = 0; index < count; ++index) {
                hashes[index] = order_[enteredCount_ + index]->Key().Hash();
                Platform::Prefetch(&slots_[hashes[index] & (slotCount_ - 1)]);
            }
            for (std::size_t index = 0; index < count; ++index) {
                Enter(hashes[index]);
            }
        }
    }

    // The keys are copied out: to compare two mostly takes their lengths alone, without a look at
    // the entries.
    void SortAdded() {
        const auto added = order_.begin() + static_cast<std::ptrdiff_t>(sortedCount_);
        if (std::is_sorted(added, order_.end(), IsBefore)) {
            return;
        }
        struct Item {
            EffectKey key;
            Entry* entry;
        };
        std::vector<Item> items;
        items.reserve(order_.size() - sortedCount_);
        std::for_each(added, order_.end(), [&](Entry* entry) {
            items.push_back({entry->Key(), entry});
        });
        std::stable_sort(items.begin(), items.end(),
                         [](const Item& left, const Item& right) { return left.key < right.key; });
        std::transform(items.begin(), items.end(), added,
                       [](const Item& item) { return item.entry; });
    }

    // Puts all entries in order; those of one name stay in order of arrival. As a rule few are new
    // among many: the places of the new ones are searched for, and it goes from the last one to the
    // first, so that each of the others moves once.
    void MergeAdded() {
        SortAdded();
        auto old = order_.begin() + static_cast<std::ptrdiff_t>(sortedCount_);
        const std::vector<Entry*> added(old, order_.end());
        auto merged = order_.end();
        for (auto fresh = added.rbegin(); fresh != added.rend(); ++fresh) {
            const auto place = PlaceOf(*fresh, old);
            merged = std::move_backward(place, old, merged);
            *--merged = *fresh;
            old = place;
        }
    }

    // Where an entry goes among the sorted ones before `end`; mostly that is near.
    auto PlaceOf(const Entry* entry, typename std::vector<Entry*>::iterator end) {
        std::ptrdiff_t step = 1;
        while (end != order_.begin()) {
            const auto probe = end - std::min(step, end - order_.begin());
            if (!IsBefore(entry, *probe)) {
                return std::upper_bound(probe + 1, end, entry, IsBefore);
            }
            end = probe;
            step *= 2;
        }
        return end;
    }

    // Goes from the last name to the first, so that what is still to be searched has no gaps.
    void DropRemoved() {
        if (removed_.empty()) {
            return;
        }
        std::sort(removed_.begin(), removed_.end(), IsBefore);
        auto end = order_.end();
        for (auto removed = removed_.rbegin(); removed != removed_.rend();) {
            const Entry* const name = *removed;
            end = std::lower_bound(order_.begin(), end, name, IsBefore);
            for (auto place = end; removed != removed_.rend() && !IsBefore(*removed, name);
                 ++removed) {
                *place++ = nullptr;
            }
        }
        order_.erase(std::remove(order_.begin(), order_.end(), nullptr), order_.end());
    }

    std::unique_ptr<Slot[]> slots_;
    std::size_t slotCount_ = 0;  // 0 or a power of two
    std::size_t size_ = 0;
    std::size_t bytes_ = 0;
    std::vector<Entry*> order_;
    std::size_t sortedCount_ = 0;
    std::size_t enteredCount_ = 0;  // entries that have, or had, a slot; the others were appended
    std::vector<Entry*> removed_;
    EntryPool pool_;
};

}  // namespace Quorvel
