#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "quorvel/IDataStream.h"
#include "vornutil/RefObject.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

/// @addtogroup packages
/// @{

/// An id that no stream has.
constexpr std::uint64_t kInvalidStreamId = ~std::uint64_t{0};

/// A package as its client sees it: a set of byte streams, each with an integer id, and one
/// free-form block of header data.
///
/// Changes stay in memory, or in pages that were evicted to the file, until Commit(), or the
/// release of the last reference, makes them the state of the file. One thread at a time may use a
/// package and all its streams.
///
/// Except where stated, operations throw FileIOException when the file can't be read or written,
/// FileDataCorruptException or InvalidParameterException when its contents are inconsistent,
/// OutOfMemoryException when the file can hold no more pages or there is no memory for one, and
/// std::bad_alloc.
class QUORVEL_API IDataStreamSet : public Util::ARefObject {
public:
    /// For the library, which makes all packages.
    IDataStreamSet();
    ~IDataStreamSet() override;

    /// Reads the whole state from the file again. Never throws. Call Commit() first: pending
    /// changes are written over the file's state after it has been read.
    ///
    /// @return False, with nothing changed, when a stream is open or the file does not hold an
    ///         intact package.
    virtual bool Load() = 0;

    /// Writes the state to the file if it has changed since the last Commit(): streams created or
    /// deleted, or header data. If it throws, the changes stay pending.
    ///
    /// Writing to an existing stream does not change the state: those bytes reach the file with the
    /// next Commit() that has a change, when their page is evicted, or when the last reference is
    /// released.
    ///
    /// @return Always true.
    virtual bool Commit() = 0;

    /// @return The sum of the sizes of all streams, in bytes.
    virtual std::uint64_t GetTotalDataSize() = 0;

    /// Resizes the header data; new bytes are zero.
    ///
    /// @param size  The new size in bytes.
    /// @return Always true.
    /// @throws std::bad_alloc
    /// @throws std::length_error
    virtual bool SetHeaderDataSize(std::uint64_t size) = 0;

    /// @return The size of the header data in bytes.
    virtual std::uint64_t GetHeaderDataSize() = 0;

    /// @fn virtual const std::uint8_t* GetHeaderData() const = 0
    /// The header data, to read.
    ///
    /// @return Null when it is empty. The pointer is valid until the header data is resized or
    ///         loaded.

    /// @fn virtual std::uint8_t* GetHeaderData() = 0
    /// The header data, to write: the call counts as a change.
    ///
    /// @return As the version for reading.
    QUORVEL_OVERLOADS(virtual const std::uint8_t* GetHeaderData() const = 0,
                      virtual std::uint8_t* GetHeaderData() = 0);

    /// @return The number of streams.
    virtual std::uint64_t GetNumberOfDataStreams() = 0;

    /// The ids of all streams, in ascending order.
    ///
    /// @param index  From 0.
    /// @return #kInvalidStreamId when index is not below the number of streams.
    virtual std::uint64_t GetDataStreamId(std::uint64_t index) = 0;

    /// Opens a stream at its start. While a stream is open, opening it again returns the same
    /// object at its current position.
    ///
    /// @param id  The id of a stream.
    /// @return An empty reference when no stream has the id.
    /// @throws FileDataCorruptException for an empty stream
    virtual Util::RefPtr<IDataStream> OpenDataStream(std::uint64_t id) = 0;

    /// Creates a stream, whose content is unspecified until written.
    ///
    /// If it throws, no stream is created, but FileDataCorruptException may leave an id and some
    /// pages unusable.
    ///
    /// @param size  Its size in bytes, at most 2 GiB - 1.
    /// @return Its id, or #kInvalidStreamId when the package has reached its stream limit.
    virtual std::uint64_t CreateDataStream(std::uint64_t size) = 0;

    /// Deletes a stream and frees its space.
    ///
    /// If it throws, nothing has changed, provided that the file is not damaged and the page cache
    /// has room for eight pages more than the open streams use. Otherwise both an exception and
    /// false can mean that the stream is gone, but that the space of its last partial page is still
    /// in use.
    ///
    /// @param id  The id of a stream.
    /// @return True also when no stream has the id; false, with nothing changed, while the stream
    ///         is open.
    virtual bool DeleteDataStream(std::uint64_t id) = 0;
};

/// @}

}  // namespace Quorvel
