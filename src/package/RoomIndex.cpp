#include "package/RoomIndex.h"

#include <algorithm>
#include <bit>

#include "platform/Assert.h"

namespace Quorvel {

void RoomIndex::Set(std::uint64_t block, std::uint32_t bytes) {
    if (block >= rooms_.size()) {
        Grow(block);
    }
    rooms_[block] = bytes;
    const std::uint64_t group = block / kGroupSize;
    std::uint64_t node = group + largest_.size() / 2;
    largest_[node] = LargestOfGroup(group);
    while ((node /= 2) != 0) {
        largest_[node] = std::max(largest_[2 * node], largest_[2 * node + 1]);
    }
}

std::optional<std::uint64_t> RoomIndex::FirstWith(std::uint64_t bytes) const {
    QUORVEL_ASSERT(bytes > 0);
    if (largest_.empty() || largest_[1] < bytes) {
        return std::nullopt;
    }
    const std::uint64_t groups = largest_.size() / 2;
    std::uint64_t node = 1;
    while (node < groups) {
        node *= 2;
        if (largest_[node] < bytes) {
            ++node;
        }
    }
    std::uint64_t block = (node - groups) * kGroupSize;
    while (rooms_[block] < bytes) {
        ++block;
    }
    return block;
}

void RoomIndex::Clear() {
    rooms_.clear();
    largest_.clear();
}

void RoomIndex::Swap(RoomIndex& other) noexcept {
    rooms_.swap(other.rooms_);
    largest_.swap(other.largest_);
}

void RoomIndex::Grow(std::uint64_t block) {
    const std::uint64_t groups = std::bit_ceil(block / kGroupSize + 1);
    std::vector<std::uint32_t> largest(2 * groups);
    rooms_.resize(groups * kGroupSize);
    largest_.swap(largest);
    for (std::uint64_t group = 0; group < groups; ++group) {
        largest_[groups + group] = LargestOfGroup(group);
    }
    for (std::uint64_t node = groups - 1; node > 0; --node) {
        largest_[node] = std::max(largest_[2 * node], largest_[2 * node + 1]);
    }
}

std::uint32_t RoomIndex::LargestOfGroup(std::uint64_t group) const {
    const auto first = rooms_.begin() + static_cast<std::ptrdiff_t>(group * kGroupSize);
    return *std::max_element(first, first + kGroupSize);
}

}  // namespace Quorvel
