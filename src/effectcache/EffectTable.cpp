#include "effectcache/EffectTable.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string_view>
#include <utility>

namespace Quorvel {

namespace {

constexpr std::size_t kFewestSlots = 64;

std::size_t HashOf(const EffectKeyView& key) {
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(key.bytes), key.length});
}

// Bits of the hash that don't choose the slot; never 0.
std::uint8_t TagOf(std::size_t hash) {
    return static_cast<std::uint8_t>(hash >> 56 | 0x80);
}

IndexEntry* MakeEntry(const EffectKeyView& key, const EffectRecord& record) {
    auto* const entry = static_cast<IndexEntry*>(std::malloc(IndexEntrySize(key.length)));
    if (!entry) {
        throw std::bad_alloc();
    }
    entry->record = record;
    entry->nameLength = key.length;
    std::memcpy(entry + 1, key.bytes, key.length);
    return entry;
}

void FreeEntry(IndexEntry* entry) noexcept {
    std::free(entry);
}

// An entry that was removed and still stands in the list of all has its name's length in the record
// alone.
bool IsRemoved(const IndexEntry* entry) {
    return entry->nameLength == 0;
}

bool IsBefore(const IndexEntry* left, const IndexEntry* right) {
    return EffectKeyOrder()(left->Key(), right->Key());
}

}  // namespace

IndexEntry* EffectTable::Find(const EffectKeyView& key) const {
    const std::size_t slot = FindSlot(key, HashOf(key));
    return slot != kNoSlot ? slots_[slot] : nullptr;
}

std::size_t EffectTable::FindSlot(const EffectKeyView& key, std::size_t hash) const {
    if (slotCount_ == 0) {
        return kNoSlot;
    }
    const std::uint8_t tag = TagOf(hash);
    for (std::size_t slot = HomeOf(hash); tags_[slot] != 0; slot = Next(slot)) {
        if (tags_[slot] == tag && slots_[slot]->nameLength == key.length &&
            std::memcmp(slots_[slot]->Name(), key.bytes, key.length) == 0) {
            return slot;
        }
    }
    return kNoSlot;
}

void EffectTable::Put(const EffectKeyView& key, const EffectRecord& record) {
    const std::size_t hash = HashOf(key);
    if (const std::size_t slot = FindSlot(key, hash); slot != kNoSlot) {
        slots_[slot]->record = record;
        return;
    }
    if ((size_ + 1) * 8 > slotCount_ * 7) {
        GrowSlots();
    }
    if (order_.size() == order_.capacity()) {
        order_.reserve(std::max(kFewestSlots, order_.size() + order_.size() / 4));
    }
    IndexEntry* const entry = MakeEntry(key, record);
    const bool isInOrder =
        sortedCount_ == order_.size() && (order_.empty() || IsBefore(order_.back(), entry));
    order_.push_back(entry);
    sortedCount_ += isInOrder ? 1 : 0;
    Insert(entry, hash);
    ++size_;
}

void EffectTable::Insert(IndexEntry* entry, std::size_t hash) noexcept {
    std::size_t slot = HomeOf(hash);
    while (tags_[slot] != 0) {
        slot = Next(slot);
    }
    slots_[slot] = entry;
    tags_[slot] = TagOf(hash);
}

void EffectTable::GrowSlots() {
    const std::size_t oldCount = slotCount_;
    const std::size_t grownCount = std::max(kFewestSlots, oldCount * 2);
    std::unique_ptr<IndexEntry*[]> slots(new IndexEntry*[grownCount]);
    std::unique_ptr<std::uint8_t[]> tags(new std::uint8_t[grownCount]());
    slots.swap(slots_);
    tags.swap(tags_);
    slotCount_ = grownCount;
    for (std::size_t slot = 0; slot < oldCount; ++slot) {
        if (tags[slot] != 0) {
            Insert(slots[slot], HashOf(slots[slot]->Key()));
        }
    }
}

// Entries behind the gap that could stand in it move up, so that none is cut off from the slot that
// its hash names.
void EffectTable::Remove(IndexEntry* entry) noexcept {
    std::size_t gap = HomeOf(HashOf(entry->Key()));
    while (slots_[gap] != entry || tags_[gap] == 0) {
        gap = Next(gap);
    }
    for (std::size_t slot = Next(gap); tags_[slot] != 0; slot = Next(slot)) {
        const std::size_t home = HomeOf(HashOf(slots_[slot]->Key()));
        if (HomeOf(slot - home) >= HomeOf(slot - gap)) {
            slots_[gap] = slots_[slot];
            tags_[gap] = tags_[slot];
            gap = slot;
        }
    }
    tags_[gap] = 0;
    entry->nameLength = 0;
    --size_;
}

void EffectTable::Settle() {
    if (sortedCount_ == order_.size() && size_ == order_.size()) {
        return;
    }
    std::vector<IndexEntry*> settled;
    settled.reserve(size_);
    const auto keep = [&settled](IndexEntry* entry) {
        if (IsRemoved(entry)) {
            FreeEntry(entry);
        } else {
            settled.push_back(entry);
        }
    };
    const auto added = order_.begin() + static_cast<std::ptrdiff_t>(sortedCount_);
    std::sort(added, order_.end(), IsBefore);
    // Few are new among many, as a rule: the places of the new ones are searched for.
    auto old = order_.begin();
    for (auto fresh = added; fresh != order_.end(); ++fresh) {
        const auto place = std::upper_bound(old, added, *fresh, IsBefore);
        std::for_each(old, place, keep);
        keep(*fresh);
        old = place;
    }
    std::for_each(old, added, keep);
    order_.swap(settled);
    sortedCount_ = order_.size();
}

void EffectTable::Clear() noexcept {
    for (IndexEntry* const entry : order_) {
        FreeEntry(entry);
    }
    order_ = {};
    sortedCount_ = 0;
    slots_.reset();
    tags_.reset();
    slotCount_ = 0;
    size_ = 0;
}

}  // namespace Quorvel
