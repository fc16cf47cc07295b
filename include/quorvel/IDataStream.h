#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "vornutil/RefObject.h"

namespace Quorvel {

/// @addtogroup packages
/// @{

constexpr std::uint32_t kSeekFromStart = 0;    ///< IDataStream::Seek counts from the start.
constexpr std::uint32_t kSeekFromCurrent = 1;  ///< From the current position, as any other value.
constexpr std::uint32_t kSeekFromEnd = 2;      ///< From the end.

/// The bytes of one stream of a package, and a position in them.
///
/// A stream keeps the size it was created with: reading and writing stop at its end. Positions are
/// signed 32-bit numbers, so a stream has at most 2 GiB - 1. A stream that outlives its package
/// becomes empty. One thread at a time may use a package and all its streams.
class QUORVEL_API IDataStream : public Util::ARefObject {
public:
    /// For the library, which makes all streams.
    IDataStream();

    /// @return The current position in bytes from the start.
    virtual std::uint64_t GetPosition() = 0;

    /// @return The stream's size in bytes.
    virtual std::uint64_t GetSize() = 0;

    /// Moves to another position.
    ///
    /// @param origin  #kSeekFromStart, #kSeekFromEnd, or anything else for the current position.
    /// @param offset  Bytes from there.
    /// @return False, with the position unchanged, when that is before the start or past the end.
    virtual bool Seek(std::uint32_t origin, std::int32_t offset) = 0;

    /// Copies bytes from the current position and moves past them.
    ///
    /// @param[out] buffer  Where to.
    /// @param size         The most bytes to copy.
    /// @return The number copied: fewer than size at the end of the stream, or when every page in
    ///         the page cache is pinned.
    /// @throws FileIOException when the package file can't be read or written
    /// @throws OutOfMemoryException when there is no memory for a page
    /// @throws std::bad_alloc likewise
    virtual std::uint64_t Read(void* buffer, std::uint64_t size) = 0;

    /// Copies bytes to the current position and moves past them. Never makes the stream longer.
    ///
    /// @param buffer  Where from.
    /// @param size    The most bytes to copy.
    /// @return The number copied, as for Read().
    /// @throws FileIOException as Read()
    /// @throws OutOfMemoryException as Read()
    /// @throws std::bad_alloc as Read()
    virtual std::uint64_t Write(const void* buffer, std::uint64_t size) = 0;

protected:
    ~IDataStream() override;
};

/// @}

}  // namespace Quorvel
