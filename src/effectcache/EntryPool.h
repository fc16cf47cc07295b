#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace Quorvel {

// Memory for many small pieces that is given back all at once. The pieces stand one behind the
// other in blocks, so that those which were taken one after the other are near each other; a large
// piece that does not fit into the block that is being filled has a block of its own.
class EntryPool {
public:
    // A piece of memory. Its address is a multiple of every power of two of which all sizes asked
    // for are multiples, up to what operator new aligns. Throws std::bad_alloc, changing nothing.
    std::byte* Allocate(std::size_t size) {
        if (size > left_) {
            return AllocateElsewhere(size);
        }
        std::byte* const piece = next_;
        next_ += size;
        left_ -= size;
        size_ += size;
        return piece;
    }

    // Memory for pieces that are filled before they are taken: at least `size` bytes, from which
    // Allocate takes its next pieces, in order, while they fit. The first `kept` bytes are those
    // that the room had before. Throws std::bad_alloc, changing nothing.
    std::span<std::byte> Room(std::size_t size, std::size_t kept);

    // The bytes of all pieces.
    std::size_t Size() const { return size_; }

    // Gives all pieces back, the pool its memory too.
    void Clear() noexcept;

    // Gives all pieces back. The pool keeps its blocks, except those of large pieces, to take the
    // next pieces from: one that is filled again at once spares the system the work. DropSpare
    // gives back the blocks without a piece in them.
    void Recycle() noexcept;
    void DropSpare() noexcept;

    void Swap(EntryPool& other) noexcept;

private:
    using Block = std::unique_ptr<std::byte[]>;

    static constexpr std::size_t kBlockSize = 0x10000;
    static constexpr std::size_t kLargePiece = kBlockSize / 8;

    std::byte* AllocateElsewhere(std::size_t size);
    static std::byte* Add(std::vector<Block>& blocks, std::size_t size);
    void BeginBlock(std::size_t size);

    std::vector<Block> blocks_;  // of kBlockSize: used_ in use, the others spare
    std::vector<Block> large_;   // each as large as the piece it was made for
    std::size_t used_ = 0;
    std::byte* next_ = nullptr;  // where the block that is being filled has room, and how much
    std::size_t left_ = 0;
    std::size_t size_ = 0;
};

}  // namespace Quorvel
