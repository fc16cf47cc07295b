#include "package/TailBlockTable.h"

#include <algorithm>
#include <utility>

#include "package/StreamTransfer.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

void TailBlockTable::Reset(std::uint64_t limit) {
    limit_ = limit;
    blockIds_.Clear();
    blocks_.clear();
    fragments_.clear();
}

const TailFragment* TailBlockTable::FindFragment(std::uint64_t streamId) const {
    return Fragment(streamId);
}

const TailBlockRecord* TailBlockTable::FindBlock(std::uint64_t blockId) const {
    return Block(blockId);
}

TailBlockRecord* TailBlockTable::Block(std::uint64_t blockId) const {
    return blockId < blocks_.size() ? blocks_[blockId].get() : nullptr;
}

TailFragment* TailBlockTable::Fragment(std::uint64_t streamId) const {
    return streamId < fragments_.size() ? fragments_[streamId].get() : nullptr;
}

std::optional<std::uint64_t> TailBlockTable::FindBlockWithRoom(std::uint64_t bytes) const {
    for (const std::unique_ptr<TailBlockRecord>& block : blocks_) {
        if (block && block->freeBytes >= bytes) {
            return block->blockId;
        }
    }
    return std::nullopt;
}

std::uint64_t TailBlockTable::AddBlock(const TailBlockPageNumbers& pages) {
    const std::uint64_t blockId = blockIds_.Allocate();
    try {
        StoreBlock({blockId, pages, kTailBlockSize});
    } catch (...) {
        blockIds_.Free(blockId);
        throw;
    }
    return blockId;
}

bool TailBlockTable::Place(std::uint64_t streamId, std::uint64_t blockId, std::uint64_t length) {
    TailBlockRecord* const block = Block(blockId);
    if (!block || block->freeBytes < length) {
        return false;
    }
    const std::uint64_t offset = kTailBlockSize - block->freeBytes;
    if (Overlaps(*block, offset, length) || Fragment(streamId)) {
        return false;
    }
    block->streamIds.push_back(streamId);
    try {
        StoreFragment({streamId, blockId, block->streamIds.size() - 1, offset, length});
    } catch (...) {
        block->streamIds.pop_back();
        throw;
    }
    block->freeBytes -= length;
    return true;
}

// Whether the list names exactly the fragments of the block, each where its list index says. It
// does unless it was read from a damaged file.
bool TailBlockTable::IsListInOrder(const TailBlockRecord& block) const {
    if (block.streamIds.size() != block.fragmentCount) {
        return false;
    }
    for (std::uint64_t index = 0; index < block.streamIds.size(); ++index) {
        const TailFragment* const fragment = Fragment(block.streamIds[index]);
        if (!fragment || fragment->blockId != block.blockId || fragment->listIndex != index) {
            return false;
        }
    }
    return true;
}

template <typename Visitor>
void TailBlockTable::ForEachFragment(const TailBlockRecord& block, const Visitor& visit) const {
    if (IsListInOrder(block)) {
        for (const std::uint64_t streamId : block.streamIds) {
            visit(*Fragment(streamId));
        }
        return;
    }
    for (const std::unique_ptr<TailFragment>& fragment : fragments_) {
        if (fragment && fragment->blockId == block.blockId) {
            visit(*fragment);
        }
    }
}

bool TailBlockTable::Overlaps(const TailBlockRecord& block, std::uint64_t offset,
                              std::uint64_t length) const {
    bool overlaps = false;
    ForEachFragment(block, [&](const TailFragment& other) {
        overlaps |= (offset >= other.offset && offset < other.offset + other.length) ||
                    (other.offset >= offset && other.offset < offset + length);
    });
    return overlaps;
}

void TailBlockTable::Remove(std::uint64_t streamId) {
    const TailFragment removed = *fragments_[streamId];
    TailBlockRecord& block = *blocks_[removed.blockId];
    ForEachFragment(block, [&removed](TailFragment& other) {
        if (other.streamId == removed.streamId) {
            return;
        }
        if (other.listIndex > removed.listIndex) {
            --other.listIndex;
        }
        if (other.offset >= removed.offset + removed.length) {
            other.offset -= removed.length;
        }
    });
    block.streamIds.erase(std::remove(block.streamIds.begin(), block.streamIds.end(), streamId),
                          block.streamIds.end());
    block.freeBytes += removed.length;
    --block.fragmentCount;
    fragments_[streamId].reset();
}

bool TailBlockTable::IsValid(const StoredTailBlock& block) const {
    return block.blockId <= BlockLimit() && block.freeBytes <= kTailBlockSize &&
           std::all_of(block.pages.begin(), block.pages.end(), IsValidPageNumber);
}

bool TailBlockTable::IsValid(const TailFragment& fragment) const {
    return fragment.streamId <= limit_ && Block(fragment.blockId) &&
           fragment.offset < kTailBlockSize && fragment.length < kPageSize;
}

void TailBlockTable::StoreBlock(const StoredTailBlock& block) {
    if (!IsValid(block)) {
        throw InvalidParameterException();
    }
    auto record = std::make_unique<TailBlockRecord>(TailBlockRecord{block, {}, 0});
    if (block.blockId >= blocks_.size()) {
        blocks_.resize(block.blockId + 1);
    }
    blocks_[block.blockId] = std::move(record);
}

void TailBlockTable::StoreFragment(const TailFragment& fragment) {
    if (!IsValid(fragment)) {
        throw InvalidParameterException();
    }
    auto record = std::make_unique<TailFragment>(fragment);
    if (fragment.streamId >= fragments_.size()) {
        fragments_.resize(fragment.streamId + 1);
    }
    fragments_[fragment.streamId] = std::move(record);
    ++Block(fragment.blockId)->fragmentCount;
}

std::uint64_t TailBlockTable::CountFragments() const {
    return static_cast<std::uint64_t>(std::count_if(
        fragments_.begin(), fragments_.end(),
        [](const std::unique_ptr<TailFragment>& fragment) { return fragment != nullptr; }));
}

std::uint64_t TailBlockTable::StateSize() const {
    std::uint64_t size = 2 * sizeof(std::uint64_t) + sizeof(TailFragment) * CountFragments();
    for (const std::unique_ptr<TailBlockRecord>& block : blocks_) {
        if (block) {
            size += sizeof(StoredTailBlock) + sizeof(std::uint64_t) * (1 + block->streamIds.size());
        }
    }
    return size;
}

bool TailBlockTable::Save(IDataStream& stream) const {
    WriteRecord(stream, blockIds_.GetNumberOfAllocatedIdentifiers());
    for (const std::unique_ptr<TailBlockRecord>& block : blocks_) {
        if (block) {
            WriteRecord<StoredTailBlock>(stream, *block);
            WriteRecord<std::uint64_t>(stream, block->streamIds.size());
            WriteAll(stream, block->streamIds.data(),
                     block->streamIds.size() * sizeof(std::uint64_t));
        }
    }
    WriteRecord(stream, CountFragments());
    for (const std::unique_ptr<TailFragment>& fragment : fragments_) {
        if (fragment) {
            WriteRecord(stream, *fragment);
        }
    }
    return true;
}

bool TailBlockTable::Load(IDataStream& stream, std::uint64_t limit) {
    Reset(limit);
    LoadBlocks(stream);
    return LoadFragments(stream);
}

void TailBlockTable::LoadBlocks(IDataStream& stream) {
    const auto count = ReadRecord<std::uint64_t>(stream);
    if (count > BlockLimit()) {
        throw FileDataCorruptException();
    }
    for (std::uint64_t index = 0; index < count; ++index) {
        const auto block = ReadRecord<StoredTailBlock>(stream);
        if (blockIds_.IsAllocated(block.blockId)) {
            throw FileDataCorruptException();
        }
        if (!IsValid(block) || !blockIds_.MarkAllocated(block.blockId)) {
            throw InvalidParameterException();
        }
        StoreBlock(block);

        std::uint64_t listed = 0;
        if (stream.Read(&listed, sizeof listed) != sizeof listed ||
            !ReadItems(stream, blocks_[block.blockId]->streamIds, listed)) {
            throw FileDataCorruptException();
        }
    }
}

bool TailBlockTable::LoadFragments(IDataStream& stream) {
    const auto count = ReadRecord<std::uint64_t>(stream);
    if (count > limit_) {
        throw FileDataCorruptException();
    }
    for (std::uint64_t index = 0; index < count; ++index) {
        const auto fragment = ReadRecord<TailFragment>(stream);
        if (fragment.listIndex >= limit_) {
            return false;
        }
        if (Fragment(fragment.streamId)) {
            throw FileDataCorruptException();
        }
        StoreFragment(fragment);
    }
    return true;
}

void TailBlockTable::Swap(TailBlockTable& other) noexcept {
    std::swap(limit_, other.limit_);
    blockIds_.Swap(other.blockIds_);
    blocks_.swap(other.blocks_);
    fragments_.swap(other.fragments_);
}

bool GetChildFileTail(ChildFileTail& tail, const TailBlockTable& table, std::uint64_t streamId) {
    tail = {};
    const TailFragment* const fragment = table.FindFragment(streamId);
    if (!fragment) {
        return true;
    }
    const TailBlockRecord* const block = table.FindBlock(fragment->blockId);
    if (!block) {
        throw FileDataCorruptException();
    }
    const std::uint64_t slot = fragment->offset >> kPageShift;
    if (slot >= kTailBlockPages || fragment->length >= kPageSize ||
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
