#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "vornutil/RefObject.h"

namespace Quorvel {

// Where IDataStream::Seek counts from. Any other value also counts from the current position.
constexpr std::uint32_t kSeekFromStart = 0;
constexpr std::uint32_t kSeekFromCurrent = 1;
constexpr std::uint32_t kSeekFromEnd = 2;

// The bytes of one stream of a package. A stream keeps the size it was created with: reading and
// writing stop at its end. Positions are signed 32-bit numbers, so a stream has at most 2 GiB - 1.
//
// A stream that outlives its package becomes empty. Read and Write throw FileIOException when the
// package file can't be read or written, and OutOfMemoryException or std::bad_alloc when there is
// no memory for a page.
class QUORVEL_API IDataStream : public Util::ARefObject {
public:
    IDataStream();

    // The current position in bytes from the start.
    virtual std::uint64_t GetPosition() = 0;

    // The stream's size in bytes.
    virtual std::uint64_t GetSize() = 0;

    // Moves to offset bytes from origin (0 start, 2 end, anything else the current position).
    // Returns false, with the position unchanged, when that is before the start or past the end.
    virtual bool Seek(std::uint32_t origin, std::int32_t offset) = 0;

    // Copies up to size bytes from the current position into buffer and moves past them. Returns
    // the number copied: fewer than size at the end of the stream, or when every page in the page
    // cache is pinned.
    virtual std::uint64_t Read(void* buffer, std::uint64_t size) = 0;

    // Copies up to size bytes from buffer to the current position and moves past them. Returns the
    // number copied, as for Read. Never makes the stream longer.
    virtual std::uint64_t Write(const void* buffer, std::uint64_t size) = 0;

protected:
    ~IDataStream() override;
};

}  // namespace Quorvel
