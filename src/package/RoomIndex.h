#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace Quorvel {

// How much room each of many blocks has, and which is the first with enough of it, in O(log n).
//
// The rooms stand in order of block ids, in groups; over the groups stands a binary tree of maxima
// whose node 1 is the root and whose nodes 2k and 2k + 1 are the children of node k.
class RoomIndex {
public:
    // Sets the room of a block, in bytes. Throws std::bad_alloc, changing nothing.
    void Set(std::uint64_t block, std::uint32_t bytes);

    // The lowest block with at least so many bytes of room. At least 1: ids that no block has stand
    // as blocks without room.
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
