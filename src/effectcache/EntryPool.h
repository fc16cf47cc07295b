#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace Quorvel {

// Memory for many small pieces that is given back all at once. The pieces stand one behind the
// other in blocks, so that those which were taken one after the other are near each other.
class EntryPool {
public:
    // A piece of memory. Its address is a multiple of every power of two of which all sizes asked
    // for are multiples, up to what operator new aligns. Throws std::bad_alloc, changing nothing.
    std::byte* Allocate(std::size_t size);

    // The bytes of all pieces.
    std::size_t Size() const { return size_; }

    // Gives all pieces back.
    void Clear() noexcept;

    void Swap(EntryPool& other) noexcept;

private:
    static constexpr std::size_t kSmallestBlock = 0x1000;
    static constexpr std::size_t kLargestBlock = 0x10000;

    std::byte* AddBlock(std::size_t size);

    std::vector<std::unique_ptr<std::byte[]>> blocks_;
    std::byte* next_ = nullptr;  // where the block that is being filled has room, and how much
    std::size_t left_ = 0;
    std::size_t size_ = 0;
};

}  // namespace Quorvel
