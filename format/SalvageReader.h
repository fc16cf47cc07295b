#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "format/EffectCacheImage.h"
#include "format/FileSource.h"
#include "format/PackageImage.h"

namespace Quorvel::Format {

// Finds the whole effects in an effect cache's file, even in one that other readers must refuse. It
// reads the tables as far as they reach, whatever the head file's header says, and judges each
// record on its own.
//
// An effect is whole if
//   - its record in the index is valid, and no other one names its stream or has its name;
//   - exactly one record of the directory has its stream's id, and that record is valid and states
//     a size that fits the effect's;
//   - the stream's pages are a chain of the right length in the link table, which no other page
//     leads into, and its fragment lies in the used part of a block that lists it, on pages that
//     are linked as the block says;
//   - these pages lie in the file and can be read, and neither a page nor a byte of the fragment
//     belongs to something else: another stream, fragment or block, or the head file;
//   - the bytes begin with the effect's size.
// Damage to the bytes themselves, or to a name, can't be noticed.
//
// Its memory grows with the index and is otherwise bounded, whatever the tables say.
class SalvageReader {
public:
    // Receives an effect that is whole.
    using EffectSink = std::function<void(const IndexEntry& entry, const Bytes& data)>;

    // Receives an effect that is not whole, and the reason, which is one of a few texts.
    using LostSink = std::function<void(const IndexEntry& entry, const std::string& reason)>;

    // Reads the tables and the index of a file, which must outlive the reader. Throws
    // std::runtime_error if the first page can't be read.
    explicit SalvageReader(const FileSource& file);
    SalvageReader(const SalvageReader&) = delete;
    SalvageReader& operator=(const SalvageReader&) = delete;

    // What is damaged in the file as a whole, one line for each thing.
    const std::vector<std::string>& Damage() const { return damage_; }

    // False if there may have been more records in the index.
    bool HasWholeIndex() const { return hasWholeIndex_; }

    // The number of records that were found in the index.
    std::size_t Count() const { return entries_.size(); }

    // Reads the effects of these records, in the order of the index.
    void ForEach(const EffectSink& whole, const LostSink& lost) const;

private:
    class HeadFile;

    // How many things claim a page; 2 means two or more.
    struct Page {
        std::uint8_t chains;        // of streams
        std::uint8_t others;        // tail blocks, and the head file
        std::uint8_t predecessors;  // pages that lead to it
    };

    struct Tail {
        Fragment fragment;
        const char* fault;  // null if there is none
    };

    Page& At(std::uint64_t page) { return pages_[static_cast<std::size_t>(page - kFirstPage)]; }
    const Page& At(std::uint64_t page) const {
        return pages_[static_cast<std::size_t>(page - kFirstPage)];
    }

    void ReadTables();
    bool ReadLinks(HeadFile& head);
    bool ReadDirectory(HeadFile& head);
    bool ReadTailBlocks(HeadFile& head);
    bool ReadFragments(HeadFile& head);
    void KeepFragments(std::vector<Fragment> fragments);
    const char* FaultOf(const Fragment& fragment) const;
    void ClaimPages();

    void ReadIndex();
    void ReadRecords(const Bytes& index);
    std::size_t FindRecord(const Bytes& index, std::size_t position) const;
    std::vector<const char*> FindAmbiguousRecords() const;

    const char* ReadWhole(const IndexEntry& entry, Bytes& data) const;
    const char* ReadStream(const StreamRecord& stream, Bytes& bytes) const;
    bool IsConfirmed(const TailBlock& block, std::size_t slot) const;
    const char* ReadTail(const StreamRecord& stream, Bytes& bytes) const;
    const char* ReadPage(std::uint64_t page, std::uint64_t offset, std::uint64_t size,
                         Bytes& bytes) const;

    const FileSource& file_;
    PackageState state_;                     // the tables, with only the valid records
    std::vector<std::uint64_t> firstPages_;  // of chains, including those of invalid records
    std::vector<Page> pages_;
    // Null for an id that several records have.
    std::unordered_map<std::uint64_t, const StreamRecord*> streams_;
    std::unordered_map<std::uint64_t, const TailBlock*> blocks_;
    std::unordered_map<std::uint64_t, Tail> tails_;  // by stream
    std::uint64_t indexStream_ = kNoStream;
    std::vector<IndexEntry> entries_;
    bool hasWholeIndex_ = false;
    std::vector<std::string> damage_;
};

}  // namespace Quorvel::Format
