#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "quorvel/IDataStream.h"
#include "vornutil/RefObject.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// The id that names no stream.
constexpr std::uint64_t kInvalidStreamId = ~std::uint64_t{0};

// A package as its client sees it: a set of byte streams, each named by an integer id, and one
// free-form block of header data. Changes live in memory and in evicted pages until Commit, or the
// release of the last reference, makes them the state that the file holds.
//
// Operations throw FileIOException when the file can't be read or written,
// FileDataCorruptException or InvalidParameterException when what it holds is inconsistent,
// OutOfMemoryException when the file can hold no more pages or there is no memory for one, and
// std::bad_alloc, except where stated.
class QUORVEL_API IDataStreamSet : public Util::ARefObject {
public:
    IDataStreamSet();
    ~IDataStreamSet() override;

    // Reads the whole state from the file again. False, with nothing changed, when a stream is open
    // or when the file holds no intact package; never throws. Changes that were not committed are
    // written over the file's state after it was read: commit first, or have none.
    virtual bool Load() = 0;

    // Writes the state to the file if anything changed since the last Commit: streams created or
    // deleted, header data. False when it can't be written; the changes are then still pending.
    // Bytes written into streams that were there are no change of the state: they reach the file
    // with the next Commit that has one, when their page leaves the cache, or at the release.
    virtual bool Commit() = 0;

    // Sum of the sizes of all streams, in bytes.
    virtual std::uint64_t GetTotalDataSize() = 0;

    // Resizes the header data to size bytes; new bytes are zero. Returns true. Throws
    // std::bad_alloc or std::length_error.
    virtual bool SetHeaderDataSize(std::uint64_t size) = 0;

    // Size of the header data in bytes.
    virtual std::uint64_t GetHeaderDataSize() = 0;

    // The header data to read or to write; null when it is empty. The pointer holds until the
    // header data is resized or loaded. Asking for the writable one counts as a change.
    QUORVEL_OVERLOADS(virtual const std::uint8_t* GetHeaderData() const = 0,
                      virtual std::uint8_t* GetHeaderData() = 0);

    // Number of streams.
    virtual std::uint64_t GetNumberOfDataStreams() = 0;

    // Id of the index-th stream (from 0), in ascending order of ids; kInvalidStreamId when there
    // are no more than index.
    virtual std::uint64_t GetDataStreamId(std::uint64_t index) = 0;

    // Opens a stream, positioned at its start. Empty when no stream has the id. While a stream is
    // open, opening it again returns the same object, with its position. An empty stream can't be
    // opened: FileDataCorruptException.
    virtual Util::RefPtr<IDataStream> OpenDataStream(std::uint64_t id) = 0;

    // Creates a stream of size bytes, whose content is unspecified until written. Returns its id,
    // or kInvalidStreamId when the package holds as many streams as it may. Throws
    // InvalidParameterException for a size of more pages than a file can have. Nothing is left of a
    // stream when it throws, except that FileDataCorruptException may cost an id and some pages.
    virtual std::uint64_t CreateDataStream(std::uint64_t size) = 0;

    // Deletes a stream; its space is used again. False, with nothing changed, while it is open.
    // True when no stream has the id. When it throws, nothing has changed either, provided that
    // the page cache had room for eight pages more than the open streams use; without that room the
    // stream may have gone and the space of its last page's bytes not be free, and false says so
    // too.
    virtual bool DeleteDataStream(std::uint64_t id) = 0;
};

}  // namespace Quorvel
