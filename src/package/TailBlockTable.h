#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "corvaneutility/IdentifierAllocator.h"
#include "package/RoomIndex.h"
#include "package/SparseTable.h"
#include "package/StreamDirectory.h"
#include "pagestore/PageGeometry.h"
#include "quorvel/IDataStream.h"
#include "seekers/ChildFileSeeker.h"

namespace Quorvel {

// A tail block is a chain of eight pages that the tails of several streams share.
constexpr std::uint64_t kTailBlockPages = 8;
constexpr std::uint64_t kTailBlockSize = kTailBlockPages * kPageSize;

using TailBlockPageNumbers = std::array<std::uint64_t, kTailBlockPages>;

// A tail block in the file: this record, then the number of streams in its list (8 bytes) and their
// ids (8 bytes each).
struct StoredTailBlock {
    std::uint64_t blockId;
    TailBlockPageNumbers pages;
    std::uint64_t freeBytes;
};

// The tail of one stream. Also its record in the file.
struct TailFragment {
    std::uint64_t streamId;
    std::uint64_t blockId;
    std::uint64_t listIndex;  // of the stream in its block's list
    std::uint64_t offset;     // of the first byte in the block
    std::uint64_t length;
};
static_assert(sizeof(StoredTailBlock) == 80);
static_assert(offsetof(StoredTailBlock, pages) == 8);
static_assert(offsetof(StoredTailBlock, freeBytes) == 72);
static_assert(sizeof(TailFragment) == 40);

// A tail block in memory. Fragments are packed from offset 0 upwards in the order of the list, so a
// new one begins at kTailBlockSize - freeBytes. A block that was read from a file may differ.
struct TailBlockRecord : StoredTailBlock {
    std::vector<std::uint64_t> streamIds;  // the list
    std::vector<std::uint32_t> tails;      // streams whose fragments name this block, in any order
    std::uint64_t fragmentEnd;  // no fragment reaches this offset or begins at or past it
};

// Where the tails of a package's streams lie.
//
// In the file: the number of blocks (8 bytes), the blocks in ascending order of ids, each with its
// list; the number of fragments (8 bytes), the fragments in ascending order of stream ids.
class TailBlockTable {
public:
    // Forgets all blocks and sets the limit on stream ids. The limit on block ids is an eighth of
    // that.
    void Reset(std::uint64_t limit = kDefaultStreamLimit);

    // The tail of a stream, or a block; null when there is none.
    const TailFragment* FindFragment(std::uint64_t streamId) const;
    const TailBlockRecord* FindBlock(std::uint64_t blockId) const;

    // All blocks by id; null where there is none.
    const std::vector<std::unique_ptr<TailBlockRecord>>& Blocks() const { return blocks_; }

    // The lowest id of a block with at least `bytes` free bytes. REQUIRES: bytes > 0.
    std::optional<std::uint64_t> FindBlockWithRoom(std::uint64_t bytes) const;

    // Adds an empty block over eight pages and returns its id. Throws InvalidParameterException
    // when a page number is not valid or no id is left.
    std::uint64_t AddBlock(const TailBlockPageNumbers& pages);

    // Puts a stream's tail after the others of a block. False, with nothing changed, when there is
    // no such block, when it has too few free bytes, or when the stream already has a tail. Throws
    // InvalidParameterException when the stream id or the length is out of range.
    [[nodiscard]] bool Place(std::uint64_t streamId, std::uint64_t blockId, std::uint64_t length);

    // Removes a stream's tail, whose bytes have been cut out of its block, and moves the tails
    // after it down. REQUIRES: the stream has a tail.
    void Remove(std::uint64_t streamId);

    // An upper bound of the number of blocks: one more than the highest id that was used.
    std::uint64_t BlockCount() const { return blocks_.size(); }

    std::uint64_t StateSize() const;

    // Throws FileIOException when the stream ends early.
    void Save(IDataStream& stream) const;

    // Resets to a limit and reads what Save wrote. False when a fragment's list index is not below
    // the limit. Throws FileIOException when the stream ends early; FileDataCorruptException for
    // too many blocks or fragments, a block id or a stream's fragment that appears twice, or a list
    // that is cut off; InvalidParameterException for a block or a fragment out of range.
    [[nodiscard]] bool Load(StateReader& reader, std::uint64_t limit);

    void Swap(TailBlockTable& other) noexcept;

private:
    std::uint64_t BlockLimit() const { return limit_ < 8 ? 1 : limit_ / 8; }
    bool IsValid(const StoredTailBlock& block) const;
    bool IsValid(const TailFragment& fragment) const;
    bool Overlaps(const TailBlockRecord& block, std::uint64_t offset, std::uint64_t length) const;
    TailBlockRecord* Block(std::uint64_t blockId) const;
    void StoreBlock(const StoredTailBlock& block);
    void StoreFragment(const TailFragment& fragment);
    void SetFreeBytes(TailBlockRecord& block, std::uint64_t bytes);
    void LoadBlocks(StateReader& reader);
    [[nodiscard]] bool LoadFragments(StateReader& reader);

    std::uint64_t limit_ = kDefaultStreamLimit;
    Corvane::IdentifierAllocator blockIds_;
    std::vector<std::unique_ptr<TailBlockRecord>> blocks_;  // by block id
    SparseTable<TailFragment> fragments_;                   // by stream id
    RoomIndex rooms_;                                       // the free bytes of the blocks
};

// Describes a stream's tail to a child file seeker; all zero when the stream has none. Returns
// true. Throws FileDataCorruptException when the fragment does not fit its block.
bool GetChildFileTail(ChildFileTail& tail, const TailBlockTable& table, std::uint64_t streamId);

}  // namespace Quorvel
