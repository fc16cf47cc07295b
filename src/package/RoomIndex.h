#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace Quorvel {

// The free bytes of many blocks; finds the first block with enough of them in O(log n).
//
// The free bytes are kept by block id, in groups. Above the groups is a binary tree of maxima: node
// 1 is the root, and nodes 2k and 2k + 1 are the children of node k.
class RoomIndex {
public:
    // Sets the free bytes of a block. Throws std::bad_alloc, changing nothing.
    void Set(std::uint64_t block, std::uint32_t bytes);

    // The lowest block with at least `bytes` free bytes. REQUIRES: bytes > 0; an id without a block
    // counts as a block with 0.
    std::optional<std::uint64_t> FirstWith(std::uint64_t bytes) const;

    void Clear();
    void Swap(RoomIndex& other) noexcept;

private:
    static constexpr std::uint64_t kGroupSize = 16;

    void Grow(std::uint64_t block);
    std::uint32_t LargestOfGroup(std::uint64_t group) const;

    std::vector<std::uint32_t> rooms_;    // by block id; whole groups, a power of two of them
    std::vector<std::uint32_t> largest_;  // the tree; its second half is the groups in order
};

}  // namespace Quorvel
