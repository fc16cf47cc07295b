#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/Assert.h"

namespace Quorvel {

// The free bytes of many blocks, by block id; finds the first block with enough of them. For each
// group of blocks it also keeps the largest number of free bytes, so that full groups are skipped.
class RoomIndex {
public:
    // Sets the free bytes of a block. Throws std::bad_alloc, changing nothing.
    void Set(std::uint64_t block, std::uint32_t bytes) {
        const std::uint64_t group = block / kGroupSize;
        if (group >= largest_.size()) {
            rooms_.reserve((group + 1) * kGroupSize);
            largest_.resize(group + 1);
            rooms_.resize((group + 1) * kGroupSize);
        }
        QUORVEL_ASSERT(rooms_.size() == largest_.size() * kGroupSize);
        rooms_[block] = bytes;
        const auto first = rooms_.begin() + static_cast<std::ptrdiff_t>(group * kGroupSize);
        largest_[group] = *std::max_element(first, first + kGroupSize);
    }

    // The lowest block with at least `bytes` free bytes. REQUIRES: bytes > 0; an id without a block
    // counts as a block with 0.
    std::optional<std::uint64_t> FirstWith(std::uint64_t bytes) const {
        QUORVEL_ASSERT(bytes > 0);
        const auto isEnough = [bytes](std::uint32_t room) { return room >= bytes; };
        const auto group = std::find_if(largest_.begin(), largest_.end(), isEnough);
        if (group == largest_.end()) { return std::nullopt; }
        const auto first = rooms_.begin() + (group - largest_.begin()) * kGroupSize;
        const auto room = std::find_if(first, rooms_.end(), isEnough);
        QUORVEL_ASSERT(room - first < kGroupSize);
        return room - rooms_.begin();
    }

    void Clear() { *this = RoomIndex(); }

private:
    static constexpr std::ptrdiff_t kGroupSize = 32;

    std::vector<std::uint32_t> rooms_;    // by block id, in whole groups
    std::vector<std::uint32_t> largest_;  // by group
};

}  // namespace Quorvel
