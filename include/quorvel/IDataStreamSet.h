#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "quorvel/IDataStream.h"
#include "vornutil/RefObject.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// An id that no stream has.
constexpr std::uint64_t kInvalidStreamId = ~std::uint64_t{0};

// A package as its client sees it: a set of byte streams, each with an integer id, and one
// free-form block of header data. Changes stay in memory, or in pages that were evicted to the
// file, until Commit, or the release of the last reference, makes them the state of the file.
//
// Except where stated, operations throw FileIOException when the file can't be read or written,
// FileDataCorruptException or InvalidParameterException when its contents are inconsistent,
// OutOfMemoryException when the file can hold no more pages or there is no memory for one, and
// std::bad_alloc.
class QUORVEL_API IDataStreamSet : public Util::ARefObject {
public:
    IDataStreamSet();
    ~IDataStreamSet() override;

    // Reads the whole state from the file again. Returns false, with nothing changed, when a stream
    // is open or the file does not hold an intact package. Never throws. Call Commit first: pending
    // changes are written over the file's state after it has been read.
    virtual bool Load() = 0;

    // Writes the state to the file if it has changed since the last Commit: streams created or
    // deleted, or header data. Always returns true. Throws when it can't be written; the changes
    // then stay pending. Writing to an existing stream does not change the state: those bytes reach
    // the file with the next Commit that has a change, when their page is evicted, or when the last
    // reference is released.
    virtual bool Commit() = 0;

    // Sum of the sizes of all streams, in bytes.
    virtual std::uint64_t GetTotalDataSize() = 0;

    // Resizes the header data to size bytes; new bytes are zero. Always returns true. Throws
    // std::bad_alloc or std::length_error.
    virtual bool SetHeaderDataSize(std::uint64_t size) = 0;

    // Size of the header data in bytes.
    virtual std::uint64_t GetHeaderDataSize() = 0;

    // The header data, to read or to write; null when it is empty. The pointer is valid until the
    // header data is resized or loaded. Calling the writable version counts as a change.
    QUORVEL_OVERLOADS(virtual const std::uint8_t* GetHeaderData() const = 0,
                      virtual std::uint8_t* GetHeaderData() = 0);

    // Number of streams.
    virtual std::uint64_t GetNumberOfDataStreams() = 0;

    // Id of the index-th stream (from 0), in ascending order of ids; kInvalidStreamId when index is
    // not below the number of streams.
    virtual std::uint64_t GetDataStreamId(std::uint64_t index) = 0;

    // Opens a stream at its start. Returns an empty reference when no stream has the id. While a
    // stream is open, opening it again returns the same object at its current position. Throws
    // FileDataCorruptException for an empty stream.
    virtual Util::RefPtr<IDataStream> OpenDataStream(std::uint64_t id) = 0;

    // Creates a stream of size bytes, whose content is unspecified until written. Returns its id,
    // or kInvalidStreamId when the package has reached its stream limit. If it throws, no stream is
    // created, but FileDataCorruptException may leave an id and some pages unusable.
    virtual std::uint64_t CreateDataStream(std::uint64_t size) = 0;

    // Deletes a stream and frees its space. Returns true also when no stream has the id; returns
    // false, with nothing changed, while the stream is open. If it throws, nothing has changed,
    // provided that the file is not damaged and the page cache has room for eight pages more than
    // the open streams use. Otherwise both an exception and false can mean that the stream is gone,
    // but that the space of its last partial page is still in use.
    virtual bool DeleteDataStream(std::uint64_t id) = 0;
};

}  // namespace Quorvel
