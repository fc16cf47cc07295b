#include "faults/FormatFields.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "faults/FormatText.h"
#include "format/EffectCacheImage.h"

namespace Quorvel::Faults {

namespace {

using Format::Bytes;
using Places = std::vector<Place>;
using Locate = std::function<Places(const FileMap&)>;

constexpr std::uint64_t kHighestPage = 0xFFFFF;
constexpr std::uint64_t kMostPages = 1048566;
constexpr std::uint64_t kStreamLimit = Format::kCacheStreamLimit;
constexpr std::uint64_t kBlockLimit = kStreamLimit / 8;
constexpr std::uint64_t kNoLimit = 0x7FFFFFFF;

Places Nowhere(const FileMap& /*map*/) {
    return {};
}

Locate InFile(std::size_t offset) {
    return [=](const FileMap&) { return Places{{offset, 8}}; };
}

Locate InLaterHeadPages(std::size_t offset) {
    return [=](const FileMap& map) {
        Places places;
        for (std::size_t index = 1; index < map.Image().headPages.size(); ++index) {
            places.push_back({Format::PageOffset(map.Image().headPages[index].number) + offset, 8});
        }
        return places;
    };
}

Locate InStreamRecords(std::uint64_t offset) {
    return [=](const FileMap& map) {
        Places places;
        for (std::size_t index = 0; index < map.Image().streams.size(); ++index) {
            places.push_back(map.InState(map.DirectoryStart() + 8 + 32 * index + offset));
        }
        return places;
    };
}

Locate InBlocks(std::uint64_t offset, std::size_t count) {
    return [=](const FileMap& map) {
        Places places;
        for (std::size_t index = 0; index < map.Image().blocks.size(); ++index) {
            for (std::size_t item = 0; item < count; ++item) {
                places.push_back(map.InState(map.BlockStart(index) + offset + 8 * item));
            }
        }
        return places;
    };
}

Places BlockLists(const FileMap& map) {
    Places places;
    for (std::size_t index = 0; index < map.Image().blocks.size(); ++index) {
        for (std::size_t item = 0; item < map.Image().blocks[index].streams.size(); ++item) {
            places.push_back(map.InState(map.BlockStart(index) + 88 + 8 * item));
        }
    }
    return places;
}

Locate InFragments(std::uint64_t offset) {
    return [=](const FileMap& map) {
        Places places;
        for (std::size_t index = 0; index < map.Image().fragments.size(); ++index) {
            places.push_back(map.InState(map.FragmentsStart() + 8 + 40 * index + offset));
        }
        return places;
    };
}

Places Links(const FileMap& map) {
    Places places;
    // The pages past the end of the file are all free; two of them stand for the rest.
    const std::size_t pages = map.Image().file.size() / Format::kPageSize + 2;
    for (std::size_t index = 0; index < std::min(pages, map.Image().links.size()); ++index) {
        places.push_back(map.InState(8 + 8 * index));
    }
    return places;
}

Locate InCacheBlock(std::uint64_t offset, std::size_t width) {
    return [=](const FileMap& map) {
        return Places{map.InState(map.CacheBlockStart() + offset, width)};
    };
}

Locate InIndex(std::uint64_t offset, std::size_t width) {
    return [=](const FileMap& map) {
        Places places;
        for (const FileMap::Entry& entry : map.Entries()) {
            places.push_back({map.StreamOffset(map.IndexStream(), entry.position + offset), width});
        }
        return places;
    };
}

Places DataLengths(const FileMap& map) {
    Places places;
    for (const FileMap::Entry& entry : map.Entries()) {
        places.push_back({map.StreamOffset(entry.stream, 0), 8});
    }
    return places;
}

template <typename Position>
Locate At(const Position& position) {
    return [=](const FileMap& map) { return Places{map.InState((map.*position)())}; };
}

Places LinkCount(const FileMap& map) {
    return {map.InState(0)};
}

Places BlockCount(const FileMap& map) {
    return {map.InState(map.BlocksStart())};
}

// The trimmed cells of a table row; empty for any other line.
std::vector<std::string> Cells(const std::string& line) {
    std::vector<std::string> cells;
    if (line.empty() || line.front() != '|') { return cells; }
    std::istringstream row(line.substr(1));
    for (std::string cell; std::getline(row, cell, '|');) {
        const std::size_t begin = cell.find_first_not_of(' ');
        const std::size_t end = cell.find_last_not_of(" \r");
        cells.push_back(begin == std::string::npos ? "" : cell.substr(begin, end - begin + 1));
    }
    return cells;
}

std::uint64_t AllOnes(std::size_t width) {
    return ~std::uint64_t{0} >> (64 - 8 * width);
}

// The values to set a field to at a place.
std::set<std::uint64_t> ValuesFor(const Field& field, const Place& place,
                                  const std::vector<Place>& places, const Bytes& file) {
    const std::uint64_t value = Format::LoadInteger(file, place.offset, place.width);
    std::set<std::uint64_t> values = {0,
                                      1,
                                      field.limit - 1,
                                      field.limit,
                                      field.limit + 1,
                                      value - 1,
                                      value + 1,
                                      value ^ 0x80,
                                      0x7FFFFFFF,
                                      0x80000000,
                                      0xFFFFFF,
                                      std::uint64_t{1} << 63,
                                      ~std::uint64_t{0} - 7,
                                      ~std::uint64_t{0}};
    // The values that the field has in other places, near and far.
    const std::size_t here = static_cast<std::size_t>(&place - places.data());
    for (const std::size_t other : {here + 1, here + 2, here + places.size() / 2}) {
        const Place& there = places[other % places.size()];
        values.insert(Format::LoadInteger(file, there.offset, there.width));
    }
    std::set<std::uint64_t> fitting;
    for (const std::uint64_t one : values) {
        if ((one & AllOnes(place.width)) != value) { fitting.insert(one & AllOnes(place.width)); }
    }
    return fitting;
}

// Fields with many more places than this are damaged in only some of them.
constexpr std::size_t kMostPlaces = 5;

std::string NameOf(const Field& field, std::size_t place, std::uint64_t value) {
    return RowOf(field) + " [" + std::to_string(place) + "] = " + std::to_string(value);
}

}  // namespace

FileMap::FileMap(const Bytes& file) : image_(Format::ReadPackage(file, Format::kCacheStreamLimit)) {
    indexStream_ = Format::ReadCacheHeader(image_.headerData).indexStream;
    const Format::CacheHeader header = Format::ReadCacheHeader(image_.headerData);
    const Format::StreamReader streams(image_);
    std::uint64_t position = 0;
    for (const Format::IndexEntry& entry : Format::ReadIndex(streams, header)) {
        entries_.push_back({position, entry.name, entry.record.streamId, entry.record.size});
        position += Format::kEffectRecordSize + Format::kLengthPrefixSize + entry.name.size();
    }
    for (const Entry& entry : entries_) {
        names_.emplace_back();
        for (std::size_t index = 0; index < entry.name.size(); ++index) {
            names_.back().push_back(StreamOffset(indexStream_, entry.position + 52 + index));
        }
    }
}

std::string FileMap::NameIn(const Bytes& file, std::size_t entry) const {
    std::string name;
    for (const std::size_t offset : names_[entry]) {
        name += offset < file.size() ? static_cast<char>(file[offset]) : '\0';
    }
    return name;
}

bool FileMap::IsUntouched(const Entry& entry, const Bytes& damaged) const {
    for (std::size_t index = 0; index < entries_.size(); ++index) {
        if ((entries_[index].name == entry.name) != (NameIn(damaged, index) == entry.name)) {
            return false;
        }
    }
    const std::vector<Piece> pieces = StreamPieces(entry.stream);
    return std::all_of(pieces.begin(), pieces.end(), [&](const Piece& piece) {
        return piece.offset + piece.size <= damaged.size() &&
               std::memcmp(damaged.data() + piece.offset, image_.file.data() + piece.offset,
                           piece.size) == 0;
    });
}

std::size_t FileMap::StateOffset(std::uint64_t position) const {
    constexpr std::uint64_t kFirst = Format::kPageSize - Format::kFirstHeadPageHeader;
    constexpr std::uint64_t kLater = Format::kPageSize - Format::kHeadPageHeader;
    if (position < kFirst) { return Format::kFirstHeadPageHeader + position; }
    const std::size_t index = 1 + (position - kFirst) / kLater;
    return Format::PageOffset(image_.headPages.at(index).number) + Format::kHeadPageHeader +
           (position - kFirst) % kLater;
}

std::size_t FileMap::StreamOffset(std::uint64_t id, std::uint64_t position) const {
    for (const Piece& piece : StreamPieces(id)) {
        if (position < piece.size) { return piece.offset + position; }
        position -= piece.size;
    }
    throw std::out_of_range("a stream ends before that position");
}

std::vector<FileMap::Piece> FileMap::StreamPieces(std::uint64_t id) const {
    std::vector<Piece> pieces;
    const auto stream = std::find_if(image_.streams.begin(), image_.streams.end(),
                                     [=](const auto& record) { return record.id == id; });
    std::uint64_t page = stream->firstPage;
    for (std::uint64_t index = 0; index < stream->pageCount; ++index) {
        pieces.push_back({Format::PageOffset(page), Format::kPageSize});
        page = image_.Link(page);
    }
    const auto fragment = std::find_if(image_.fragments.begin(), image_.fragments.end(),
                                       [=](const auto& tail) { return tail.streamId == id; });
    if (fragment == image_.fragments.end()) { return pieces; }
    const auto block =
        std::find_if(image_.blocks.begin(), image_.blocks.end(),
                     [=](const auto& tails) { return tails.id == fragment->blockId; });
    std::uint64_t offset = fragment->offset;
    for (std::uint64_t left = fragment->length; left > 0;) {
        const std::uint64_t inPage = offset % Format::kPageSize;
        const std::uint64_t size = std::min(left, Format::kPageSize - inPage);
        pieces.push_back(
            {Format::PageOffset(block->pages[offset / Format::kPageSize]) + inPage, size});
        offset += size;
        left -= size;
    }
    return pieces;
}

std::uint64_t FileMap::BlockStart(std::size_t index) const {
    std::uint64_t start = BlocksStart() + 8;
    for (std::size_t before = 0; before < index; ++before) {
        start += 88 + 8 * image_.blocks[before].streams.size();
    }
    return start;
}

const std::vector<Field>& Fields() {
    static const std::vector<Field> fields = {
        {Table::FirstHeadPage, "page count", kMostPages, InFile(0)},
        {Table::FirstHeadPage, "byte size", 2 * Format::kPageSize, InFile(8)},
        {Table::FirstHeadPage, "next page", kHighestPage, InFile(16)},
        {Table::FirstHeadPage, "data end", Format::kPageSize, InFile(24)},
        {Table::FirstHeadPage, "data", kNoLimit, Nowhere},
        {Table::LaterHeadPage, "next page", kHighestPage, InLaterHeadPages(0)},
        {Table::LaterHeadPage, "data end", Format::kPageSize, InLaterHeadPages(8)},
        {Table::LaterHeadPage, "data", kNoLimit, Nowhere},
        {Table::LinkTable, "N, number of links", kMostPages, LinkCount},
        {Table::LinkTable, "links of pages 10, 11, ..., 10 + N - 1, u64 each", kHighestPage, Links},
        {Table::StreamDirectory, "S, number of streams", kStreamLimit,
         At(&FileMap::DirectoryStart)},
        {Table::StreamDirectory, "one record a stream", kNoLimit, Nowhere},
        {Table::StreamRecord, "id", kStreamLimit, InStreamRecords(0)},
        {Table::StreamRecord, "byte size", kNoLimit, InStreamRecords(8)},
        {Table::StreamRecord, "first page", kHighestPage, InStreamRecords(16)},
        {Table::StreamRecord, "page count", kMostPages, InStreamRecords(24)},
        {Table::TailBlocks, "B, number of tail blocks", kBlockLimit, BlockCount},
        {Table::TailBlocks, "for each block its record and its list", kNoLimit, Nowhere},
        {Table::TailBlocks, "F, number of fragments", kStreamLimit, At(&FileMap::FragmentsStart)},
        {Table::TailBlocks, "one record a fragment", kNoLimit, Nowhere},
        {Table::BlockRecord, "id", kBlockLimit, InBlocks(0, 1)},
        {Table::BlockRecord, "pages", kHighestPage, InBlocks(8, 8)},
        {Table::BlockRecord, "free bytes", Format::kTailBlockSize, InBlocks(72, 1)},
        {Table::BlockRecord, "n, length of the list", kStreamLimit, InBlocks(80, 1)},
        {Table::BlockRecord, "list", kStreamLimit, BlockLists},
        {Table::FragmentRecord, "stream id", kStreamLimit, InFragments(0)},
        {Table::FragmentRecord, "block id", kBlockLimit, InFragments(8)},
        {Table::FragmentRecord, "index", kStreamLimit - 1, InFragments(16)},
        {Table::FragmentRecord, "offset", Format::kTailBlockSize - 1, InFragments(24)},
        {Table::FragmentRecord, "length", Format::kPageSize - 1, InFragments(32)},
        {Table::HeaderData, "L, size of the header data", 40, At(&FileMap::HeaderDataStart)},
        {Table::HeaderData, "the header data; its content is the client's", kNoLimit, Nowhere},
        {Table::HeaderBlock, "tag", Format::kCacheHeaderTag, InCacheBlock(0, 4)},
        {Table::HeaderBlock, "payload length", Format::kCacheHeaderSize, InCacheBlock(4, 4)},
        {Table::HeaderBlock, "reserved", kNoLimit, InCacheBlock(8, 4)},
        {Table::HeaderBlock, "payload", kNoLimit, Nowhere},
        {Table::CacheHeader, "version", Format::kCacheVersion, InCacheBlock(12, 4)},
        {Table::CacheHeader, "effect count", Format::kEffectCountLimit, InCacheBlock(16, 8)},
        {Table::CacheHeader, "index stream", kStreamLimit, InCacheBlock(24, 8)},
        {Table::CacheHeader, "reserved", kNoLimit, InCacheBlock(32, 8)},
        {Table::IndexRecord, "data stream", kStreamLimit, InIndex(0, 8)},
        {Table::IndexRecord, "name length", Format::kNameLengthLimit, InIndex(8, 4)},
        {Table::IndexRecord, "effect size", Format::kEffectSizeLimit, InIndex(12, 4)},
        {Table::IndexRecord, "permanent", 1, InIndex(16, 4)},
        {Table::IndexRecord, "entry time", kNoLimit, InIndex(20, 8)},
        {Table::IndexRecord, "reserved", kNoLimit, InIndex(36, 8)},
        {Table::IndexRecord, "name length", Format::kNameLengthLimit, InIndex(44, 8)},
        {Table::IndexRecord, "name", kNoLimit, InIndex(52, 8)},
        {Table::EntryTime, "year", 0xFFFF, InIndex(20, 2)},
        {Table::EntryTime, "month, from 1", 12, InIndex(22, 2)},
        {Table::EntryTime, "day of the month, from 1", 31, InIndex(24, 2)},
        {Table::EntryTime, "hour", 23, InIndex(26, 2)},
        {Table::EntryTime, "minute", 59, InIndex(28, 2)},
        {Table::EntryTime, "second", 59, InIndex(30, 2)},
        {Table::EntryTime, "milliseconds", 999, InIndex(32, 4)},
        {Table::DataStream, "effect size, the same as in the record", Format::kEffectSizeLimit,
         DataLengths},
        {Table::DataStream, "the effect's data", kNoLimit, Nowhere},
        {Table::TimeStamp, "seconds since 1970-01-01 UTC, signed", kNoLimit, Nowhere},
        {Table::TimeStamp, "value of the performance counter, signed", kNoLimit, Nowhere},
        {Table::TimeStamp, "a pseudo-random number", kNoLimit, Nowhere},
        {Table::TimeStamp, "id of the process that wrote it", kNoLimit, Nowhere},
    };
    return fields;
}

void ForEachDamagedField(const FileMap& map, Table table, const FileSink& use) {
    const Bytes& sound = map.Image().file;
    for (const Field& field : Fields()) {
        if (field.table != table) { continue; }
        const std::vector<Place> places = field.places(map);
        const std::size_t step = std::max<std::size_t>(places.size() / kMostPlaces, 1);
        for (std::size_t index = 0; index < places.size(); index += step) {
            for (const std::uint64_t value : ValuesFor(field, places[index], places, sound)) {
                Bytes damaged = sound;
                Format::StoreInteger(damaged, places[index].offset, places[index].width, value);
                use(damaged, NameOf(field, index, value));
            }
        }
    }
}

std::string RowOf(const Field& field) {
    return std::to_string(static_cast<int>(field.table)) + ": " + field.name;
}

std::vector<std::string> DocumentedFields() {
    std::vector<std::string> fields;
    std::istringstream text{std::string(kFormatText)};
    int table = -1;
    std::size_t column = 0;  // of the field's name in the current table; 0 outside a table
    bool isJournal = false;  // RollbackJournalTest.cpp damages its fields
    for (std::string line; std::getline(text, line);) {
        if (line.starts_with("## ")) { isJournal = line == "## Rollback journal"; }
        if (isJournal) { continue; }
        const std::vector<std::string> cells = Cells(line);
        const auto name = std::find(cells.begin(), cells.end(), "field");
        if (cells.empty()) {
            column = 0;
        } else if (name != cells.end()) {
            column = static_cast<std::size_t>(name - cells.begin());
            ++table;
        } else if (column != 0 && cells.size() > column && cells[0].rfind("---", 0) != 0) {
            fields.push_back(std::to_string(table) + ": " + cells[column]);
        }
    }
    return fields;
}

}  // namespace Quorvel::Faults
