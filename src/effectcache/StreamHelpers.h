#pragma once

#include <cstdint>
#include <span>

#include "quorvel/IDataStream.h"
#include "vornutil/RefPtr.h"
#include "vornutil/Tab.h"

// Transfers of exact sizes between buffers and streams. These functions don't throw; they return
// false on any failure. A transfer that fails after it began sets the caller's stream reference to
// null, so that all later calls in a chain fail too.
namespace Quorvel {

// Moves exactly size bytes. False for a null stream, null data or a size of 0, which leave the
// stream alone, and for a short transfer.
[[nodiscard]] bool WriteExact(Util::RefPtr<IDataStream>& stream, const void* data,
                              std::uint64_t size) noexcept;
[[nodiscard]] bool ReadExact(Util::RefPtr<IDataStream>& stream, void* data,
                             std::uint64_t size) noexcept;

// Writes a byte array: its length in 8 bytes, then its bytes.
[[nodiscard]] bool WriteBytes(std::span<const unsigned char> buffer,
                              Util::RefPtr<IDataStream>& stream) noexcept;

// Reads a byte array of at most limit bytes, and in any case below 2 GiB. On failure the buffer's
// content is unspecified.
[[nodiscard]] bool ReadBytes(Tab<unsigned char>& buffer, Util::RefPtr<IDataStream>& stream,
                             std::uint64_t limit) noexcept;

// Bytes that a byte array of `count` bytes takes in a stream.
constexpr std::uint64_t SerializedSize(std::uint64_t count) {
    return sizeof(std::uint64_t) + count;
}

}  // namespace Quorvel
