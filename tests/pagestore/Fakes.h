#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "pagestore/PageGeometry.h"
#include "quorvel/Exceptions.h"
#include "quorvel/IDataStream.h"
#include "seekers/IPagedFileSeeker.h"

// Helpers for the tests of the page store and the seekers: test bytes and files, a fake stream and
// a fake seeker.
namespace Quorvel::Testing {

using Bytes = std::vector<std::uint8_t>;
using Numbers = std::vector<std::uint64_t>;

// Bytes that differ from their neighbours, from page to page and from seed to seed.
inline Bytes PatternBytes(std::uint64_t size, std::uint64_t seed = 0) {
    Bytes bytes(size);
    for (std::uint64_t i = 0; i < size; ++i) {
        bytes[i] =
            static_cast<std::uint8_t>(i * 31 + (i >> 8) * 7 + (i >> kPageShift) + seed * 101);
    }
    return bytes;
}

inline Bytes Slice(const Bytes& bytes, std::uint64_t offset, std::uint64_t size) {
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return {first, first + static_cast<std::ptrdiff_t>(size)};
}

// The 8192 bytes at a pointer from the page cache.
inline Bytes PageBytes(const std::uint8_t* data) {
    return {data, data + kPageSize};
}

inline std::uint64_t FileOffset(std::uint64_t page) {
    return (page - 10) * 8192;
}

inline Bytes ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    Bytes bytes(file ? static_cast<std::size_t>(file.tellg()) : 0);
    file.seekg(0);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

inline Bytes ReadFilePage(const std::string& path, std::uint64_t page) {
    return Slice(ReadFile(path), FileOffset(page), kPageSize);
}

inline void WriteFile(const std::string& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

// The error code of the FileIOException that an action throws; empty if it throws none.
template <typename Action>
std::optional<int> FileErrorOf(Action&& action) {
    try {
        action();
    } catch (const FileIOException& error) { return static_cast<int>(error.errorCode); }
    return std::nullopt;
}

// A data member without an accessor, by its offset in the object.
template <typename Field>
Field FieldAt(const void* object, std::size_t offset) {
    Field field;
    std::memcpy(&field, static_cast<const std::uint8_t*>(object) + offset, sizeof field);
    return field;
}

// The offset of a data member in its object.
template <typename Object, typename Field>
std::ptrdiff_t OffsetIn(const Object& object, const Field& field) {
    return reinterpret_cast<const std::uint8_t*>(&field) -
           reinterpret_cast<const std::uint8_t*>(&object);
}

// The slot of a virtual function. A pointer to one holds the slot's offset in the virtual table.
template <typename Function>
std::size_t VirtualSlot(Function function) {
    std::size_t offset;
    std::memcpy(&offset, &function, sizeof offset);
    return offset / sizeof(void*);
}

// A stream over bytes in memory that records the size of every requested transfer.
class MemoryStream : public IDataStream {
public:
    explicit MemoryStream(Bytes content) : bytes(std::move(content)) {}

    std::uint64_t GetPosition() override { return position; }
    std::uint64_t GetSize() override { return bytes.size(); }
    bool Seek(std::uint32_t, std::int32_t offset) override {
        position = static_cast<std::uint64_t>(offset);
        return true;
    }
    std::uint64_t Read(void* buffer, std::uint64_t size) override {
        const std::uint64_t count = Take(size);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(position), count,
                    static_cast<std::uint8_t*>(buffer));
        position += count;
        return count;
    }
    std::uint64_t Write(const void* buffer, std::uint64_t size) override {
        const std::uint64_t count = Take(size);
        std::copy_n(static_cast<const std::uint8_t*>(buffer), count,
                    bytes.begin() + static_cast<std::ptrdiff_t>(position));
        position += count;
        return count;
    }

    Bytes bytes;
    std::uint64_t position = 0;
    Numbers transfers;

private:
    std::uint64_t Take(std::uint64_t size) {
        transfers.push_back(size);
        return std::min<std::uint64_t>(size, bytes.size() - position);
    }
};

// A seeker over the given pages and ranges that records its calls. Its tables show a page only
// after the page is loaded.
class ListSeeker : public IPagedFileSeeker {
public:
    struct Entry {
        std::uint64_t page;
        PageRange range;
    };

    explicit ListSeeker(std::initializer_list<Entry> entries) : entries_(entries) {
        for (const Entry& entry : entries_) {
            byteSize += LengthOf(entry);
        }
        pageCount = entries_.size();
        numbers_.resize(pageCount);
        ranges_.resize(pageCount);
        pageNumbers = numbers_.data();
        pageRanges = ranges_.data();
    }

    bool PositionToPage(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                        std::int32_t position) override {
        ++positionsAsked;
        return Place(pageIndex, pageOffset, position);
    }
    bool MovePosition(std::uint64_t& pageIndex, std::uint64_t& pageOffset, const PagePosition& from,
                      std::uint32_t distance) override {
        ++movesAsked;
        std::uint64_t position = from.pageOffset - entries_[from.pageIndex].range.start + distance;
        for (std::uint64_t index = 0; index < from.pageIndex; ++index) {
            position += LengthOf(entries_[index]);
        }
        return Place(pageIndex, pageOffset,
                     static_cast<std::int32_t>(static_cast<std::uint32_t>(position)));
    }
    void LoadPageInfo(std::uint64_t pageIndex) override {
        pagesLoaded.push_back(pageIndex);
        for (std::uint64_t index = 0; index <= pageIndex; ++index) {
            numbers_[index] = entries_[index].page;
            ranges_[index] = entries_[index].range;
        }
    }

    // The calls so far.
    int positionsAsked = 0;
    int movesAsked = 0;
    Numbers pagesLoaded;

    // If false, no position exists.
    bool placesPositions = true;

private:
    static std::uint64_t LengthOf(const Entry& entry) {
        return entry.range.end - entry.range.start;
    }

    bool Place(std::uint64_t& pageIndex, std::uint64_t& pageOffset, std::int32_t position) const {
        pageIndex = 0;
        pageOffset = 0;
        if (!placesPositions || position < 0 || static_cast<std::uint64_t>(position) > byteSize) {
            return false;
        }
        auto left = static_cast<std::uint64_t>(position);
        for (std::uint64_t index = 0; index < entries_.size(); ++index) {
            const std::uint64_t length = LengthOf(entries_[index]);
            if (left < length || index + 1 == entries_.size()) {
                pageIndex = index;
                pageOffset = entries_[index].range.start + left;
                break;
            }
            left -= length;
        }
        return true;
    }

    const std::vector<Entry> entries_;
    Numbers numbers_;
    std::vector<PageRange> ranges_;
};

}  // namespace Quorvel::Testing
