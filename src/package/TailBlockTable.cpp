#include "package/TailBlockTable.h"

#include <algorithm>
#include <span>
#include <utility>

#include "package/StreamTransfer.h"
#include "platform/Assert.h"
#include "platform/ScopeGuard.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

namespace {

// One past the last byte of a fragment. An empty fragment counts as one byte.
std::uint64_t EndOf(const TailFragment& fragment) {
    return fragment.offset + std::max<std::uint64_t>(fragment.length, 1);
}

std::uint32_t RoomOf(std::uint64_t freeBytes) {
    return static_cast<std::uint32_t>(freeBytes);
}

}  // namespace

void TailBlockTable::Reset(std::uint64_t limit) {
    limit_ = limit;
    blockIds_.Clear();
    blocks_.clear();
    fragments_.Clear();
    rooms_.Clear();
}

const TailFragment* TailBlockTable::FindFragment(std::uint64_t streamId) const {
    return fragments_.Find(streamId);
}

const TailBlockRecord* TailBlockTable::FindBlock(std::uint64_t blockId) const {
    return Block(blockId);
}

TailBlockRecord* TailBlockTable::Block(std::uint64_t blockId) const {
    return blockId < blocks_.size() ? blocks_[blockId].get() : nullptr;
}

std::optional<std::uint64_t> TailBlockTable::FindBlockWithRoom(std::uint64_t bytes) const {
    return rooms_.FirstWith(bytes);
}

std::uint64_t TailBlockTable::AddBlock(const TailBlockPageNumbers& pages) {
    const std::uint64_t blockId = blockIds_.Allocate();
    Platform::ScopeGuard freeId([&] { blockIds_.Free(blockId); });
    StoreBlock({blockId, pages, kTailBlockSize});
    freeId.Dismiss();
    return blockId;
}

bool TailBlockTable::Place(std::uint64_t streamId, std::uint64_t blockId, std::uint64_t length) {
    TailBlockRecord* const block = Block(blockId);
    if (!block || block->freeBytes < length) { return false; }
    const std::uint64_t offset = kTailBlockSize - block->freeBytes;
    if (Overlaps(*block, offset, length) || FindFragment(streamId)) { return false; }
    block->streamIds.push_back(streamId);
    Platform::ScopeGuard unlist([&] { block->streamIds.pop_back(); });
    StoreFragment({streamId, blockId, block->streamIds.size() - 1, offset, length});
    unlist.Dismiss();
    SetFreeBytes(*block, block->freeBytes - length);
    return true;
}

// A new tail goes after all others, unless the block was read from a damaged file.
bool TailBlockTable::Overlaps(const TailBlockRecord& block, std::uint64_t offset,
                              std::uint64_t length) const {
    if (offset >= block.fragmentEnd) { return false; }
    return std::any_of(block.tails.begin(), block.tails.end(), [&](std::uint64_t streamId) {
        const TailFragment& other = *FindFragment(streamId);
        return (offset >= other.offset && offset < other.offset + other.length) ||
               (other.offset >= offset && other.offset < offset + length);
    });
}

void TailBlockTable::Remove(std::uint64_t streamId) {
    QUORVEL_ASSERT(FindFragment(streamId));
    const TailFragment removed = *FindFragment(streamId);
    TailBlockRecord& block = *blocks_[removed.blockId];
    std::erase(block.streamIds, streamId);
    std::erase(block.tails, streamId);
    block.fragmentEnd = 0;
    for (const std::uint64_t otherId : block.tails) {
        TailFragment& other = *fragments_.Find(otherId);
        QUORVEL_ASSERT(other.blockId == removed.blockId);
        if (other.listIndex > removed.listIndex) { --other.listIndex; }
        if (other.offset >= removed.offset + removed.length) { other.offset -= removed.length; }
        block.fragmentEnd = std::max(block.fragmentEnd, EndOf(other));
    }
    fragments_.Erase(streamId);
    SetFreeBytes(block, block.freeBytes + removed.length);
}

void TailBlockTable::SetFreeBytes(TailBlockRecord& block, std::uint64_t bytes) {
    block.freeBytes = bytes;
    rooms_.Set(block.blockId, RoomOf(bytes));
}

bool TailBlockTable::IsValid(const StoredTailBlock& block) const {
    return block.blockId <= BlockLimit() && block.freeBytes <= kTailBlockSize &&
           std::all_of(block.pages.begin(), block.pages.end(), IsValidPageNumber);
}

// The second bound keeps a damaged file from making the tables as large as any limit allows: no
// stream can have an id above it.
bool TailBlockTable::IsValid(const TailFragment& fragment) const {
    return fragment.streamId <= std::min(limit_, kDefaultStreamLimit) && Block(fragment.blockId) &&
           fragment.offset < kTailBlockSize && fragment.length < kPageSize;
}

void TailBlockTable::StoreBlock(const StoredTailBlock& block) {
    if (!IsValid(block)) { throw InvalidParameterException(); }
    QUORVEL_ASSERT(!Block(block.blockId));
    auto record = std::make_unique<TailBlockRecord>(TailBlockRecord{block, {}, {}, 0});
    if (block.blockId >= blocks_.size()) { blocks_.resize(block.blockId + 1); }
    rooms_.Set(block.blockId, RoomOf(block.freeBytes));
    blocks_[block.blockId] = std::move(record);
}

void TailBlockTable::StoreFragment(const TailFragment& fragment) {
    if (!IsValid(fragment)) { throw InvalidParameterException(); }
    QUORVEL_ASSERT(!FindFragment(fragment.streamId));
    TailBlockRecord& block = *Block(fragment.blockId);
    block.tails.push_back(static_cast<std::uint32_t>(fragment.streamId));
    Platform::ScopeGuard unlist([&] { block.tails.pop_back(); });
    fragments_.Put(fragment.streamId, fragment);
    unlist.Dismiss();
    block.fragmentEnd = std::max(block.fragmentEnd, EndOf(fragment));
}

std::uint64_t TailBlockTable::StateSize() const {
    std::uint64_t size = 2 * sizeof(std::uint64_t) + sizeof(TailFragment) * fragments_.Count();
    for (const std::unique_ptr<TailBlockRecord>& block : blocks_) {
        if (block) {
            size += sizeof(StoredTailBlock) + sizeof(std::uint64_t) * (1 + block->streamIds.size());
        }
    }
    return size;
}

void TailBlockTable::Save(IDataStream& stream) const {
    StateWriter writer(stream);
    writer.Write(blockIds_.GetNumberOfAllocatedIdentifiers());
    for (const std::unique_ptr<TailBlockRecord>& block : blocks_) {
        if (block) {
            writer.Write<StoredTailBlock>(*block);
            writer.Write<std::uint64_t>(block->streamIds.size());
            writer.WriteAll(std::span<const std::uint64_t>(block->streamIds));
        }
    }
    writer.Write(fragments_.Count());
    fragments_.ForEach([&writer](const TailFragment& fragment) { writer.Write(fragment); });
    writer.Flush();
}

bool TailBlockTable::Load(StateReader& reader, std::uint64_t limit) {
    Reset(limit);
    LoadBlocks(reader);
    return LoadFragments(reader);
}

void TailBlockTable::LoadBlocks(StateReader& reader) {
    const auto count = reader.Read<std::uint64_t>();
    if (count > BlockLimit()) { throw FileDataCorruptException(); }
    // Each block has a list, which may be empty. The number of fragments follows the blocks.
    constexpr std::uint64_t kSmallestBlock = sizeof(StoredTailBlock) + sizeof(std::uint64_t);
    for (std::uint64_t index = 0; index < count; ++index) {
        reader.Expect((count - index) * kSmallestBlock + sizeof(std::uint64_t));
        const auto block = reader.Read<StoredTailBlock>();
        if (blockIds_.IsAllocated(block.blockId)) { throw FileDataCorruptException(); }
        if (!IsValid(block) || !blockIds_.MarkAllocated(block.blockId)) {
            throw InvalidParameterException();
        }
        StoreBlock(block);

        std::uint64_t listed = 0;
        if (!reader.TryRead(&listed, sizeof listed) ||
            !reader.ReadItems(blocks_[block.blockId]->streamIds, listed)) {
            throw FileDataCorruptException();
        }
        blocks_[block.blockId]->tails.reserve(listed);
    }
}

bool TailBlockTable::LoadFragments(StateReader& reader) {
    const auto count = reader.Read<std::uint64_t>();
    if (count > limit_) { throw FileDataCorruptException(); }
    reader.Expect(count * sizeof(TailFragment));
    for (std::uint64_t index = 0; index < count; ++index) {
        const auto fragment = reader.Read<TailFragment>();
        if (fragment.listIndex >= limit_) { return false; }
        if (FindFragment(fragment.streamId)) { throw FileDataCorruptException(); }
        StoreFragment(fragment);
    }
    return true;
}

void TailBlockTable::Swap(TailBlockTable& other) noexcept {
    std::swap(limit_, other.limit_);
    blockIds_.Swap(other.blockIds_);
    blocks_.swap(other.blocks_);
    std::swap(fragments_, other.fragments_);
    std::swap(rooms_, other.rooms_);
}

bool GetChildFileTail(ChildFileTail& tail, const TailBlockTable& table, std::uint64_t streamId) {
    tail = {};
    const TailFragment* const fragment = table.FindFragment(streamId);
    if (!fragment) { return true; }
    const TailBlockRecord* const block = table.FindBlock(fragment->blockId);
    if (QUORVEL_NEVER(!block)) { throw FileDataCorruptException(); }
    const std::uint64_t slot = fragment->offset >> kPageShift;
    if (QUORVEL_NEVER(slot >= kTailBlockPages || fragment->length >= kPageSize) ||
        fragment->offset + fragment->length > kTailBlockSize - block->freeBytes) {
        throw FileDataCorruptException();
    }
    const std::uint64_t offset = fragment->offset & (kPageSize - 1);
    const bool crossesPageEnd = offset + fragment->length > kPageSize;
    tail.tailPage = block->pages[slot];
    tail.followingPage = crossesPageEnd && slot + 1 < kTailBlockPages ? block->pages[slot + 1] : 0;
    tail.tailOffset = offset;
    tail.tailLength = fragment->length;
    return true;
}

}  // namespace Quorvel
