#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace Quorvel {

// An arena: memory for many small pieces that are all freed together.
//
// A piece's address is a multiple of every power of two that divides all sizes asked for, up to the
// alignment of operator new.
class EntryPool {
public:
    // Throws std::bad_alloc, changing nothing.
    std::byte* Allocate(std::size_t size) {
        if (size > left_) { return AllocateElsewhere(size); }
        std::byte* const piece = next_;
        next_ += size;
        left_ -= size;
        size_ += size;
        return piece;
    }

    // The bytes of all pieces.
    std::size_t Size() const { return size_; }

private:
    static constexpr std::size_t kBlockSize = 0x10000;
    static constexpr std::size_t kLargePiece = kBlockSize / 8;

    std::byte* AllocateElsewhere(std::size_t size) {
        if (size >= kLargePiece) {
            std::byte* const piece = AddBlock(size);
            size_ += size;
            return piece;
        }
        next_ = AddBlock(kBlockSize);
        left_ = kBlockSize;
        return Allocate(size);
    }

    std::byte* AddBlock(std::size_t size) {
        std::unique_ptr<std::byte[]> block(new std::byte[size]);  // left uninitialised
        blocks_.push_back(std::move(block));
        return blocks_.back().get();
    }

    std::vector<std::unique_ptr<std::byte[]>> blocks_;
    std::byte* next_ = nullptr;  // the free bytes of the block that is being filled
    std::size_t left_ = 0;
    std::size_t size_ = 0;
};

}  // namespace Quorvel
