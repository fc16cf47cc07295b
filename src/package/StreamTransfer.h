#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "quorvel/Exceptions.h"
#include "quorvel/IDataStream.h"

// Whole transfers of the package's own state. All throw FileIOException when the stream ends early,
// except where stated.
namespace Quorvel {

inline void WriteAll(IDataStream& stream, const void* data, std::uint64_t size) {
    if (stream.Write(data, size) != size) {
        throw FileIOException();
    }
}

inline void ReadAll(IDataStream& stream, void* data, std::uint64_t size) {
    if (stream.Read(data, size) != size) {
        throw FileIOException();
    }
}

// A record without pointers or padding, by value.
template <typename Record>
void WriteRecord(IDataStream& stream, const Record& record) {
    WriteAll(stream, &record, sizeof record);
}

template <typename Record>
Record ReadRecord(IDataStream& stream) {
    Record record;
    ReadAll(stream, &record, sizeof record);
    return record;
}

// Bytes between the position and the end.
inline std::uint64_t BytesLeft(IDataStream& stream) {
    const std::uint64_t position = stream.GetPosition();
    const std::uint64_t size = stream.GetSize();
    return size > position ? size - position : 0;
}

// Appends so many items to a vector; false when the stream ends early. The vector grows with what
// arrives: a damaged file that claims more than it holds takes no memory for it.
template <typename Item>
bool ReadItems(IDataStream& stream, std::vector<Item>& items, std::uint64_t count) {
    constexpr std::uint64_t kItemsAtOnce = 8192 / sizeof(Item);
    if (count > BytesLeft(stream) / sizeof(Item)) {
        return false;
    }
    while (count > 0) {
        const std::uint64_t step = std::min(count, kItemsAtOnce);
        const std::size_t filled = items.size();
        items.resize(filled + step);
        if (stream.Read(items.data() + filled, step * sizeof(Item)) != step * sizeof(Item)) {
            return false;
        }
        count -= step;
    }
    return true;
}

}  // namespace Quorvel
