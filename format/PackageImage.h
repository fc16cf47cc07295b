#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "format/Bytes.h"
#include "format/FileSource.h"

namespace Quorvel::Format {

constexpr std::uint64_t kPageSize = 8192;
constexpr std::uint64_t kFirstPage = 10;            // the number of the file's first page
constexpr std::uint64_t kPageNumberEnd = 0x100000;  // one past the last valid page number
constexpr std::uint64_t kPageCountLimit = kPageNumberEnd - kFirstPage;
constexpr std::uint64_t kFirstHeadPageHeader = 32;
constexpr std::uint64_t kHeadPageHeader = 16;
constexpr std::uint64_t kTailBlockSize = 65536;
constexpr std::size_t kTailBlockPages = 8;
constexpr std::uint64_t kHighestId = 0xFFFFFF;  // the highest stream or tail block id

// Link values that are not page numbers.
constexpr std::uint64_t kChainEnd = 0;
constexpr std::uint64_t kFreePage = 1;

inline bool IsPageNumber(std::uint64_t number) {
    return number >= kFirstPage && number < kPageNumberEnd;
}
// Where a page begins in the file.
inline std::size_t PageOffset(std::uint64_t number) {
    return static_cast<std::size_t>((number - kFirstPage) * kPageSize);
}

struct HeadPage {
    std::uint64_t number;
    std::uint64_t nextPage;
    std::uint64_t dataEnd;
};

struct StreamRecord {
    std::uint64_t id;
    std::uint64_t size;
    std::uint64_t firstPage;
    std::uint64_t pageCount;
};

struct TailBlock {
    std::uint64_t id;
    std::array<std::uint64_t, kTailBlockPages> pages;
    std::uint64_t freeBytes;
    std::vector<std::uint64_t> streams;
};

struct Fragment {
    std::uint64_t streamId;
    std::uint64_t blockId;
    std::uint64_t index;
    std::uint64_t offset;
    std::uint64_t length;
};

// The contents of a package's head file, with the records in the order of the file.
struct PackageState {
    std::uint64_t headPageCount = 0;  // as the header of the first page states it, like headSize
    std::uint64_t headSize = 0;
    std::vector<HeadPage> headPages;  // the pages that a reader of the state enters
    std::uint64_t stateSize = 0;      // bytes that the state takes up
    std::vector<std::uint64_t> links;
    std::vector<StreamRecord> streams;
    std::vector<TailBlock> blocks;
    std::vector<Fragment> fragments;
    Bytes headerData;

    // The link value of a page; kFreePage if the table has no entry for it.
    std::uint64_t Link(std::uint64_t page) const;
};

// A package file in memory.
struct PackageImage : PackageState {
    Bytes file;
};

// The maximum number of tail blocks, and the highest tail block id, under a stream limit.
std::uint64_t TailBlockLimit(std::uint64_t streamLimit);

// Parses a package file. Throws FormatError if a reader with this stream limit must refuse it. An
// accepted file may still break rules for writers, which CheckPackage checks.
PackageImage ReadPackage(Bytes file, std::uint64_t streamLimit = kHighestId);
PackageState ReadPackageState(const FileSource& file, std::uint64_t streamLimit = kHighestId);

// True if the first page carries the mark of a save that was not finished. A reader must refuse the
// file.
bool IsMarked(const FileSource& file);

// Reads the streams of a package. The arguments must outlive it.
class StreamReader {
public:
    explicit StreamReader(const PackageImage& image);
    StreamReader(const PackageState& state, const FileSource& file);
    StreamReader(const StreamReader&) = delete;
    StreamReader& operator=(const StreamReader&) = delete;

    // The size that the directory states. Throws FormatError if the stream is missing.
    std::uint64_t Size(std::uint64_t id) const;

    // The bytes of a stream. Throws FormatError if the stream is missing or empty, or if a reader
    // must refuse to open or to read it.
    Bytes Read(std::uint64_t id) const;

    // The bytes in a range of a stream, as far as the stream reaches. Throws as Read does.
    Bytes Read(std::uint64_t id, std::uint64_t offset, std::uint64_t size) const;

    // The pages that hold those bytes, in order. Throws as Read does, but accepts pages past the
    // end of the file.
    std::vector<std::uint64_t> Pages(std::uint64_t id) const;

private:
    struct Piece;
    void IndexRecords();
    const StreamRecord& Find(std::uint64_t id) const;
    std::vector<Piece> Pieces(std::uint64_t id) const;
    void AppendTail(const Fragment& fragment, std::vector<Piece>& pieces) const;

    const PackageState& state_;
    std::optional<MemorySource> memory_;  // of an image
    const FileSource& file_;
    std::unordered_map<std::uint64_t, const StreamRecord*> streams_;
    std::unordered_map<std::uint64_t, const Fragment*> fragments_;  // by stream
    std::unordered_map<std::uint64_t, const TailBlock*> blocks_;
};

// The bytes of every stream by id, empty streams included. Throws as StreamReader::Read does.
std::map<std::uint64_t, Bytes> ReadAllStreams(const PackageImage& image);

}  // namespace Quorvel::Format
