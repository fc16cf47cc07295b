#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "format/Bytes.h"
#include "package/StreamTransfer.h"
#include "quorvel/IDataStream.h"

namespace Quorvel::Testing {

// A stream of fixed size over bytes in memory. It may claim a size other than its own, like the
// head file of a damaged package.
class MemoryStream : public IDataStream {
public:
    explicit MemoryStream(Format::Bytes bytes)
        : bytes_(std::move(bytes)), claimedSize_(bytes_.size()) {}
    MemoryStream(Format::Bytes bytes, std::uint64_t claimedSize)
        : bytes_(std::move(bytes)), claimedSize_(claimedSize) {}
    ~MemoryStream() override = default;

    const Format::Bytes& Content() const { return bytes_; }

    std::uint64_t GetPosition() override { return position_; }
    std::uint64_t GetSize() override { return claimedSize_; }
    bool Seek(std::uint32_t /*origin*/, std::int32_t /*offset*/) override { return false; }

    std::uint64_t Read(void* buffer, std::uint64_t size) override {
        const std::uint64_t count = Step(size);
        std::copy_n(bytes_.data() + position_ - count, count, static_cast<std::uint8_t*>(buffer));
        return count;
    }

    std::uint64_t Write(const void* buffer, std::uint64_t size) override {
        const std::uint64_t count = Step(size);
        std::copy_n(static_cast<const std::uint8_t*>(buffer), count,
                    bytes_.data() + position_ - count);
        return count;
    }

private:
    // Advances by up to `size` bytes. Returns how far.
    std::uint64_t Step(std::uint64_t size) {
        const std::uint64_t count = std::min(size, bytes_.size() - position_);
        position_ += count;
        return count;
    }

    Format::Bytes bytes_;
    std::uint64_t claimedSize_;
    std::uint64_t position_ = 0;
};

// The bytes that a part of a package's state saves to a stream of its StateSize; empty when it does
// not fill the stream.
template <typename State>
Format::Bytes Saved(const State& state) {
    MemoryStream stream(Format::Bytes(state.StateSize(), 0xEE));
    state.Save(stream);
    if (stream.GetPosition() != stream.GetSize()) { return {}; }
    return stream.Content();
}

// The bytes of 64-bit little-endian numbers.
inline Format::Bytes BytesOf(const std::vector<std::uint64_t>& words) {
    Format::Bytes bytes;
    for (const std::uint64_t word : words) {
        Format::AppendInteger(bytes, 8, word);
    }
    return bytes;
}

// The first bytes of a sequence.
inline Format::Bytes Prefix(const Format::Bytes& bytes, std::size_t size) {
    return Format::Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
}

// Loads a part of a package's state from a stream; returns what Load returns.
template <typename State>
auto LoadFrom(State&& state, IDataStream& stream, std::uint64_t limit) {
    StateReader reader(stream);
    return state.Load(reader, limit);
}

}  // namespace Quorvel::Testing
