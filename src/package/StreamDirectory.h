#pragma once

#include <cstdint>

#include "corvaneutility/IdentifierAllocator.h"
#include "package/SparseTable.h"
#include "platform/Assert.h"
#include "quorvel/IDataStream.h"
#include "seekers/ChildFileSeeker.h"

namespace Quorvel {

class StateReader;

// The limit on ids of a new directory and a new tail block table.
constexpr std::uint64_t kDefaultStreamLimit = 0xFFFFFF;

// The streams of a package: which ids are in use, and where each stream's whole pages lie.
//
// In the file: the number of records (8 bytes), then a ChildFileExtent for each, in ascending order
// of ids.
class StreamDirectory {
public:
    // Forgets all streams and sets the limit on their number and ids.
    void Reset(std::uint64_t limit = kDefaultStreamLimit);

    // Sum of the sizes of all streams.
    std::uint64_t TotalBytes() const { return totalBytes_; }

    std::uint64_t Count() const { return ids_.GetNumberOfAllocatedIdentifiers(); }
    std::uint64_t IdAt(std::uint64_t index) const { return ids_.GetAllocatedIdentifier(index); }

    // The record of a stream; null when there is none. It keeps its address until it is removed.
    const ChildFileExtent* Find(std::uint64_t id) const { return records_.Find(id); }

    // Visits every record, in ascending order of ids.
    template <typename Visitor>
    void ForEach(const Visitor& visit) const {
        records_.ForEach(visit);
    }

    // Allocates an id for a new stream; kInvalidStreamId when none is left.
    [[nodiscard]] std::uint64_t AllocateId() { return ids_.Allocate(); }

    // True if an id is allocated. Faster than finding its record.
    bool HasId(std::uint64_t id) const { return ids_.IsAllocated(id); }

    // Frees an id. REQUIRES: it is allocated and has no record.
    void FreeId(std::uint64_t id) {
        QUORVEL_ASSERT(HasId(id) && !Find(id));
        ids_.Free(id);
    }

    // Stores the record of an allocated id, replacing the one it had. Throws
    // InvalidParameterException when the id is above the limit or not allocated, or when the record
    // counts more whole pages than a file can have.
    void Store(std::uint64_t id, const ChildFileExtent& extent);

    // Removes a stream's record and frees its id; false when there is none.
    [[nodiscard]] bool Remove(std::uint64_t id);

    std::uint64_t StateSize() const {
        return sizeof(std::uint64_t) + sizeof(ChildFileExtent) * Count();
    }

    // Throws FileIOException when the stream ends early.
    void Save(IDataStream& stream) const;

    // Resets to a limit and reads what Save wrote. Throws FileIOException when the stream ends
    // early; FileDataCorruptException for too many records, an id that appears twice or can't be
    // allocated; InvalidParameterException for a record out of range.
    void Load(StateReader& reader, std::uint64_t limit);

    void Swap(StreamDirectory& other) noexcept;

private:
    std::uint64_t limit_ = kDefaultStreamLimit;
    std::uint64_t totalBytes_ = 0;
    Corvane::IdentifierAllocator ids_;
    SparseTable<ChildFileExtent> records_;
};

}  // namespace Quorvel
