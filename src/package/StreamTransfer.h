#pragma once

#include <cstdint>

#include "quorvel/Exceptions.h"
#include "quorvel/IDataStream.h"

// Whole transfers of the package's own state. All throw FileIOException when the stream ends early.
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

}  // namespace Quorvel
