#include "effectcache/EntryPool.h"

#include <algorithm>
#include <utility>

namespace Quorvel {

std::byte* EntryPool::Allocate(std::size_t size) {
    std::byte* piece = nullptr;
    if (size <= left_) {
        piece = next_;
    } else {
        const std::size_t blockSize = std::clamp(size_, kSmallestBlock, kLargestBlock);
        if (size > blockSize / 4) {
            // It gets a block of its own, and the one that is being filled stays in use.
            piece = AddBlock(size);
            size_ += size;
            return piece;
        }
        piece = AddBlock(blockSize);
        left_ = blockSize;
    }
    next_ = piece + size;
    left_ -= size;
    size_ += size;
    return piece;
}

std::byte* EntryPool::AddBlock(std::size_t size) {
    std::unique_ptr<std::byte[]> block(new std::byte[size]);  // unset
    blocks_.push_back(std::move(block));
    return blocks_.back().get();
}

void EntryPool::Clear() noexcept {
    EntryPool().Swap(*this);
}

void EntryPool::Swap(EntryPool& other) noexcept {
    blocks_.swap(other.blocks_);
    std::swap(next_, other.next_);
    std::swap(left_, other.left_);
    std::swap(size_, other.size_);
}

}  // namespace Quorvel
