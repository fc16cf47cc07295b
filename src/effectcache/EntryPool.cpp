#include "effectcache/EntryPool.h"

#include <algorithm>
#include <utility>

namespace Quorvel {

// A piece that the block being filled has no room for.
std::byte* EntryPool::AllocateElsewhere(std::size_t size) {
    if (size >= kLargePiece) {
        std::byte* const piece = Add(large_, size);
        size_ += size;
        return piece;
    }
    BeginBlock(size);
    return Allocate(size);
}

std::span<std::byte> EntryPool::Room(std::size_t size, std::size_t kept) {
    if (size > left_) {
        const std::byte* const before = next_;
        BeginBlock(size);
        std::copy_n(before, kept, next_);
    }
    return {next_, left_};
}

// Goes on in a block with so much room.
void EntryPool::BeginBlock(std::size_t size) {
    if (size > kBlockSize) {
        next_ = Add(large_, size);
        left_ = size;
        return;
    }
    next_ = used_ < blocks_.size() ? blocks_[used_].get() : Add(blocks_, kBlockSize);
    left_ = kBlockSize;
    ++used_;
}

std::byte* EntryPool::Add(std::vector<Block>& blocks, std::size_t size) {
    Block block(new std::byte[size]);  // unset
    blocks.push_back(std::move(block));
    return blocks.back().get();
}

void EntryPool::Clear() noexcept {
    EntryPool().Swap(*this);
}

void EntryPool::Recycle() noexcept {
    large_.clear();
    used_ = 0;
    left_ = 0;
    size_ = 0;
}

void EntryPool::DropSpare() noexcept {
    blocks_.resize(used_);
}

void EntryPool::Swap(EntryPool& other) noexcept {
    blocks_.swap(other.blocks_);
    large_.swap(other.large_);
    std::swap(used_, other.used_);
    std::swap(next_, other.next_);
    std::swap(left_, other.left_);
    std::swap(size_, other.size_);
}

}  // namespace Quorvel
