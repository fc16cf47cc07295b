#include "package/StreamDirectory.h"

#include <utility>

#include "package/StreamTransfer.h"
#include "pagestore/PageGeometry.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

void StreamDirectory::Reset(std::uint64_t limit) {
    limit_ = limit;
    totalBytes_ = 0;
    ids_.Clear();
    records_.clear();
}

const ChildFileExtent* StreamDirectory::Find(std::uint64_t id) const {
    const auto found = records_.find(id);
    return found != records_.end() ? &found->second : nullptr;
}

void StreamDirectory::Store(std::uint64_t id, const ChildFileExtent& extent) {
    if (id > limit_ || extent.wholePageCount > kPageCountLimit || !ids_.IsAllocated(id)) {
        throw InvalidParameterException();
    }
    ChildFileExtent& record = records_[id];  // all zero when it is new
    totalBytes_ -= record.byteSize;
    record = extent;
    record.streamId = id;
    totalBytes_ += record.byteSize;
}

bool StreamDirectory::Remove(std::uint64_t id) {
    const auto found = records_.find(id);
    if (found == records_.end()) {
        return false;
    }
    totalBytes_ -= found->second.byteSize;
    records_.erase(found);
    return ids_.Free(id);
}

bool StreamDirectory::Save(IDataStream& stream) const {
    WriteRecord(stream, Count());
    for (const auto& [id, record] : records_) {
        WriteRecord(stream, record);
    }
    return true;
}

bool StreamDirectory::Load(IDataStream& stream, std::uint64_t limit) {
    Reset(limit);
    const auto count = ReadRecord<std::uint64_t>(stream);
    if (count > limit_) {
        throw FileDataCorruptException();
    }
    for (std::uint64_t index = 0; index < count; ++index) {
        const auto extent = ReadRecord<ChildFileExtent>(stream);
        if (!ids_.MarkAllocated(extent.streamId)) {
            throw FileDataCorruptException();
        }
        Store(extent.streamId, extent);
    }
    return true;
}

void StreamDirectory::Swap(StreamDirectory& other) noexcept {
    std::swap(limit_, other.limit_);
    std::swap(totalBytes_, other.totalBytes_);
    ids_.Swap(other.ids_);
    records_.swap(other.records_);
}

}  // namespace Quorvel
