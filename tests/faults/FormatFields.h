#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "format/PackageImage.h"

// The fields of the file format, one for each row of the layout tables in docs/format.md.
namespace Quorvel::Faults {

// The tables of the document, in its order.
enum class Table {
    FirstHeadPage,
    LaterHeadPage,
    LinkTable,
    StreamDirectory,
    StreamRecord,
    TailBlocks,
    BlockRecord,
    FragmentRecord,
    HeaderData,
    HeaderBlock,
    CacheHeader,
    IndexRecord,
    EntryTime,
    DataStream,
    TimeStamp,  // in shared memory, not in the file
};

// The place of an integer in a file.
struct Place {
    std::size_t offset;
    std::size_t width;
};

// A sound effect cache's file and the offsets of its parts.
class FileMap {
public:
    explicit FileMap(const Format::Bytes& file);

    const Format::PackageImage& Image() const { return image_; }
    std::uint64_t IndexStream() const { return indexStream_; }

    std::size_t StateOffset(std::uint64_t position) const;
    std::size_t StreamOffset(std::uint64_t id, std::uint64_t position) const;

    // The places of a stream's bytes, piece by piece.
    struct Piece {
        std::size_t offset;
        std::size_t size;
    };
    std::vector<Piece> StreamPieces(std::uint64_t id) const;
    Place InState(std::uint64_t position, std::size_t width = 8) const {
        return {StateOffset(position), width};
    }

    // Positions in the state.
    std::uint64_t DirectoryStart() const { return 8 + 8 * image_.links.size(); }
    std::uint64_t BlocksStart() const { return DirectoryStart() + 8 + 32 * image_.streams.size(); }
    std::uint64_t BlockStart(std::size_t index) const;
    std::uint64_t FragmentsStart() const { return BlockStart(image_.blocks.size()); }
    std::uint64_t HeaderDataStart() const {
        return FragmentsStart() + 8 + 40 * image_.fragments.size();
    }
    std::uint64_t CacheBlockStart() const { return HeaderDataStart() + 8; }

    struct Entry {
        std::uint64_t position;  // in the index stream
        std::string name;
        std::uint64_t stream;
        std::uint64_t size;
    };
    const std::vector<Entry>& Entries() const { return entries_; }

    // True if neither the bytes of an effect nor its name are damaged in a file, and no other index
    // entry has taken the name: of two entries with one name, the later one counts.
    bool IsUntouched(const Entry& entry, const Format::Bytes& damaged) const;

private:
    std::string NameIn(const Format::Bytes& file, std::size_t entry) const;

    const Format::PackageImage image_;
    std::uint64_t indexStream_ = 0;
    std::vector<Entry> entries_;
    std::vector<std::vector<std::size_t>> names_;  // file offset of each byte of their names
};

struct Field {
    Table table;
    std::string name;     // the cell in the document
    std::uint64_t limit;  // the greatest valid value, if there is one
    std::function<std::vector<Place>(const FileMap&)> places;
};

// A field has no places if its row stands for other rows, or for bytes that the library ignores.
const std::vector<Field>& Fields();

// Calls `use` with damaged copies of a file and their names. In each copy, one field of a table has
// another value: one at a limit, or the value of the field in another place. Fields with many
// places are damaged in only some of them.
using FileSink = std::function<void(const Format::Bytes& damaged, const std::string& name)>;
void ForEachDamagedField(const FileMap& map, Table table, const FileSink& use);

// The rows about the package file in the document, as "table number: cell".
std::vector<std::string> DocumentedFields();
std::string RowOf(const Field& field);

}  // namespace Quorvel::Faults
