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
    records_.Clear();
}

void StreamDirectory::Store(std::uint64_t id, const ChildFileExtent& extent) {
    if (id > limit_ || extent.wholePageCount > kPageCountLimit || !ids_.IsAllocated(id)) {
        throw InvalidParameterException();
    }
    const ChildFileExtent* const replaced = records_.Find(id);
    const std::uint64_t replacedBytes = replaced ? replaced->byteSize : 0;
    ChildFileExtent record = extent;
    record.streamId = id;
    records_.Put(id, record);
    totalBytes_ += record.byteSize - replacedBytes;
}

bool StreamDirectory::Remove(std::uint64_t id) {
    const ChildFileExtent* const record = Find(id);
    if (!record) { return false; }
    totalBytes_ -= record->byteSize;
    records_.Erase(id);
    QUORVEL_ASSERT(HasId(id));
    return ids_.Free(id);
}

void StreamDirectory::Save(IDataStream& stream) const {
    QUORVEL_ASSERT(records_.Count() == Count());  // StateSize relies on it
    StateWriter writer(stream);
    writer.Write(records_.Count());
    records_.ForEach([&writer](const ChildFileExtent& record) { writer.Write(record); });
    writer.Flush();
}

void StreamDirectory::Load(StateReader& reader, std::uint64_t limit) {
    Reset(limit);
    const auto count = reader.Read<std::uint64_t>();
    if (count > limit_) { throw FileDataCorruptException(); }
    reader.Expect(count * sizeof(ChildFileExtent));
    for (std::uint64_t index = 0; index < count; ++index) {
        const auto extent = reader.Read<ChildFileExtent>();
        if (!ids_.MarkAllocated(extent.streamId)) { throw FileDataCorruptException(); }
        Store(extent.streamId, extent);
    }
}

void StreamDirectory::Swap(StreamDirectory& other) noexcept {
    std::swap(limit_, other.limit_);
    std::swap(totalBytes_, other.totalBytes_);
    ids_.Swap(other.ids_);
    std::swap(records_, other.records_);
}

}  // namespace Quorvel
