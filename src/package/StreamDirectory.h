#pragma once

#include <cstdint>

#include "corvaneutility/IdentifierAllocator.h"
#include "package/SparseTable.h"
#include "quorvel/IDataStream.h"
#include "seekers/ChildFileSeeker.h"

namespace Quorvel {

class StateReader;

// The limit on ids that a directory and a tail block table have until they are given another.
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

    // The record of a stream; null when there is none. It stays where it is until it is removed.
    const ChildFileExtent* Find(std::uint64_t id) const { return records_.Find(id); }

    // Visits every record, in ascending order of ids.
    template <typename Visitor>
    void ForEach(const Visitor& visit) const {
        records_.ForEach(visit);
    }

    // Takes an id for a new stream; kInvalidStreamId when there is none left.
    std::uint64_t AllocateId() { return ids_.Allocate(); }

    // Whether an id is in use, which it is from its allocation on: faster than to find its record.
    bool HasId(std::uint64_t id) const { return ids_.IsAllocated(id); }

    // Gives back an id that has no record.
    void FreeId(std::uint64_t id) { ids_.Free(id); }

    // Stores the record of an allocated id, in place of the one it had. Throws
    // InvalidParameterException when the id is above the limit or not allocated, or when the record
    // counts more whole pages than there can be.
    void Store(std::uint64_t id, const ChildFileExtent& extent);

    // Removes a stream's record and frees its id; false when there is none.
    bool Remove(std::uint64_t id);

    std::uint64_t StateSize() const {
        return sizeof(std::uint64_t) + sizeof(ChildFileExtent) * Count();
    }

    // Returns true. Throws FileIOException when the stream ends early.
    bool Save(IDataStream& stream) const;

    // Resets to a limit and reads what Save wrote. Returns true. Throws FileIOException when the
    // stream ends early; FileDataCorruptException for too many records, an id that comes twice or
    // can't be had; InvalidParameterException for a record out of range.
    bool Load(StateReader& reader, std::uint64_t limit);

    void Swap(StreamDirectory& other) noexcept;

private:
    void CheckRange(std::uint64_t id, const ChildFileExtent& extent) const;

    std::uint64_t limit_ = kDefaultStreamLimit;
    std::uint64_t totalBytes_ = 0;
    Corvane::IdentifierAllocator ids_;
    SparseTable<ChildFileExtent> records_;
};

}  // namespace Quorvel
