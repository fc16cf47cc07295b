#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

#include "platform/Assert.h"
#include "quorvel/Exceptions.h"
#include "quorvel/IDataStream.h"

// Transfers of the package's own state and of the effect cache's index. They consist of many small
// records, which pass through a buffer so that the stream moves large pieces. Everything throws
// FileIOException when the stream ends early, except where stated.
namespace Quorvel {

// Small enough for any thread's stack, large enough that copying outweighs the cost of the call.
constexpr std::size_t kTransferBufferSize = 2048;

// Writes to a stream. Everything written has reached it after Flush.
class StateWriter {
public:
    explicit StateWriter(IDataStream& stream) : stream_(stream) {}
    StateWriter(const StateWriter&) = delete;
    StateWriter& operator=(const StateWriter&) = delete;

    void Write(const void* data, std::uint64_t size) {
        if (size > buffer_.size() - filled_) {
            Flush();
            if (size >= buffer_.size()) {
                WriteThrough(data, size);
                return;
            }
        }
        if (size != 0) {
            QUORVEL_ASSERT(size <= buffer_.size() - filled_);
            std::memcpy(buffer_.data() + filled_, data, size);
            filled_ += size;
        }
    }

    // Writes a record, which must have no pointers or padding.
    template <typename Record>
    void Write(const Record& record) {
        Write(&record, sizeof record);
    }

    // Writes several records.
    template <typename Record>
    void WriteAll(std::span<const Record> records) {
        Write(records.data(), records.size_bytes());
    }

    void Flush() {
        if (filled_ != 0) { WriteThrough(buffer_.data(), std::exchange(filled_, 0)); }
    }

private:
    void WriteThrough(const void* data, std::uint64_t size) {
        if (stream_.Write(data, size) != size) { throw FileIOException(); }
    }

    IDataStream& stream_;
    std::size_t filled_ = 0;
    std::array<std::uint8_t, kTransferBufferSize> buffer_;
};

// Reads from a stream. Reads ahead only as far as Expect has announced, so a reader that stops
// before the end of the stream has not touched the pages after that point.
class StateReader {
public:
    explicit StateReader(IDataStream& stream) : stream_(stream) {}
    StateReader(const StateReader&) = delete;
    StateReader& operator=(const StateReader&) = delete;

    // Announces that at least `bytes` more bytes will be read.
    void Expect(std::uint64_t bytes) { expected_ = std::max(expected_, bytes); }

    // False when the stream ends early.
    [[nodiscard]] bool TryRead(void* data, std::uint64_t size) {
        auto* to = static_cast<std::uint8_t*>(data);
        Expect(size);
        expected_ -= size;
        while (size != 0) {
            if (begin_ == end_ && !Refill(size + expected_)) { return false; }
            const std::uint64_t count = std::min<std::uint64_t>(size, end_ - begin_);
            std::memcpy(to, buffer_.data() + begin_, count);
            begin_ += count;
            to += count;
            size -= count;
        }
        return true;
    }

    template <typename Record>
    Record Read() {
        Record record;
        if (!TryRead(&record, sizeof record)) { throw FileIOException(); }
        return record;
    }

    // Appends `count` items to a vector; false when the stream ends early, with some appended. The
    // vector grows with what arrives, so that a damaged file can't claim memory for items that it
    // does not hold.
    template <typename Item>
    [[nodiscard]] bool ReadItems(std::vector<Item>& items, std::uint64_t count) {
        while (count != 0) {
            const std::uint64_t step = std::min(count, kTransferBufferSize / sizeof(Item));
            const std::size_t filled = items.size();
            items.resize(filled + step);
            if (!TryRead(items.data() + filled, step * sizeof(Item))) { return false; }
            count -= step;
        }
        return true;
    }

private:
    bool Refill(std::uint64_t wanted) {
        begin_ = 0;
        end_ = stream_.Read(buffer_.data(), std::min<std::uint64_t>(wanted, buffer_.size()));
        QUORVEL_ASSERT(end_ <= buffer_.size());
        return end_ != 0;
    }

    IDataStream& stream_;
    std::uint64_t expected_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::array<std::uint8_t, kTransferBufferSize> buffer_;
};

}  // namespace Quorvel
