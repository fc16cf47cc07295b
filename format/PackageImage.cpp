#include "format/PackageImage.h"

#include <algorithm>
#include <string>

#include "format/Require.h"

namespace Quorvel::Format {
namespace {

std::string Number(std::uint64_t value) {
    return std::to_string(value);
}

// A reader compares the size with positions, which are signed 32-bit numbers.
bool IsReachableSize(std::uint64_t size) {
    return (size & 0x80000000) == 0;
}

// Finds ids that appear twice.
class Ids {
public:
    // False if the id was added before. REQUIRES: it is at most kHighestId.
    bool Add(std::uint64_t id) {
        if (Has(id)) { return false; }
        if (id >= isIn_.size()) { isIn_.resize(static_cast<std::size_t>(id + 1)); }
        isIn_[static_cast<std::size_t>(id)] = true;
        return true;
    }

    bool Has(std::uint64_t id) const {
        return id < isIn_.size() && isIn_[static_cast<std::size_t>(id)];
    }

private:
    std::vector<bool> isIn_;
};

// Reads the head file from front to back. Enters a page once all bytes before it have been read,
// even if none of its bytes are needed.
class HeadFileReader {
public:
    HeadFileReader(const FileSource& file, PackageState& image);

    std::uint64_t ReadInteger();
    Bytes Read(std::uint64_t size);

private:
    void EnterPage(std::uint64_t number);

    const FileSource& file_;
    PackageState& state_;
    std::vector<bool> entered_;  // by page
    Bytes page_;                 // the last page entered
    std::uint64_t offset_ = 0;   // in that page
};

HeadFileReader::HeadFileReader(const FileSource& file, PackageState& state)
    : file_(file), state_(state), page_(kPageSize) {
    Require(file.Size() >= kPageSize, "the file has no first page");
    file.Read(0, page_.data(), kPageSize);
    state.headPageCount = LoadInteger(page_, 0, 8);
    state.headSize = LoadInteger(page_, 8, 8);
    Require(state.headPageCount >= 1 && state.headPageCount <= kPageCountLimit,
            "the head file has ", state.headPageCount, " pages");
    Require(state.headSize <= state.headPageCount * kPageSize && IsReachableSize(state.headSize),
            "the head file's size is ", state.headSize, " bytes");
    EnterPage(kFirstPage);
}

void HeadFileReader::EnterPage(std::uint64_t number) {
    const std::string name = "head page " + Number(number);
    Require(IsPageNumber(number), name, " has an invalid number");
    const auto index = static_cast<std::size_t>(number - kFirstPage);
    if (index >= entered_.size()) { entered_.resize(index + 1); }
    Require(!entered_[index], name, " appears twice in the chain");
    entered_[index] = true;
    Require(PageOffset(number) + kPageSize <= file_.Size(), name, " lies past the end of the file");

    file_.Read(PageOffset(number), page_.data(), kPageSize);
    const bool first = state_.headPages.empty();
    const std::size_t links = first ? 16 : 0;
    const HeadPage page{number, LoadInteger(page_, links, 8), LoadInteger(page_, links + 8, 8)};
    offset_ = first ? kFirstHeadPageHeader : kHeadPageHeader;
    Require(page.dataEnd > offset_ && page.dataEnd <= kPageSize, name, "'s data ends at ",
            page.dataEnd);
    Require(page.nextPage == 0 || page.dataEnd == kPageSize, name, " is neither full nor last");
    state_.headPages.push_back(page);
}

std::uint64_t HeadFileReader::ReadInteger() {
    if (offset_ + 8 >= state_.headPages.back().dataEnd) { return LoadInteger(Read(8), 0, 8); }
    offset_ += 8;
    state_.stateSize += 8;
    return LoadInteger(page_, offset_ - 8, 8);
}

Bytes HeadFileReader::Read(std::uint64_t size) {
    Bytes result;
    while (result.size() < size) {
        const HeadPage page = state_.headPages.back();
        const std::uint64_t count = std::min(size - result.size(), page.dataEnd - offset_);
        const auto from = page_.begin() + static_cast<std::ptrdiff_t>(offset_);
        result.insert(result.end(), from, from + static_cast<std::ptrdiff_t>(count));
        offset_ += count;
        if (offset_ < page.dataEnd) { break; }
        if (state_.headPages.size() == state_.headPageCount) {
            Require(result.size() == size, "the state ends early");
            break;
        }
        EnterPage(page.nextPage);
    }
    state_.stateSize += size;
    return result;
}

void ReadLinks(HeadFileReader& head, PackageState& state) {
    const std::uint64_t count = head.ReadInteger();
    Require(count <= kPageCountLimit, "the link table has ", count, " entries");
    const Bytes table = head.Read(8 * count);
    std::vector<bool> follows(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t link = LoadInteger(table, 8 * i, 8);
        state.links.push_back(link);
        if (IsPageNumber(link)) {
            const std::uint64_t index = link - kFirstPage;
            Require(index < count, "page ", link, " follows a page, but is not in the table");
            Require(!follows[index], "page ", link, " follows two pages");
            follows[index] = true;
        }
    }
}

void ReadDirectory(HeadFileReader& head, std::uint64_t limit, PackageState& state) {
    const std::uint64_t count = head.ReadInteger();
    Require(count <= limit, "there are ", count, " streams");
    Ids ids;
    for (std::uint64_t i = 0; i < count; ++i) {
        StreamRecord stream{};
        stream.id = head.ReadInteger();
        stream.size = head.ReadInteger();
        stream.firstPage = head.ReadInteger();
        stream.pageCount = head.ReadInteger();
        const std::string name = "stream " + Number(stream.id);
        Require(stream.id <= std::min(limit, kHighestId), name, "'s id is too high");
        Require(ids.Add(stream.id), name, " appears twice");
        Require(stream.pageCount <= kPageCountLimit, name, " has ", stream.pageCount,
                " whole pages");
        state.streams.push_back(stream);
    }
}

void ReadTailBlocks(HeadFileReader& head, std::uint64_t limit, PackageState& state) {
    const std::uint64_t count = head.ReadInteger();
    Require(count <= TailBlockLimit(limit), "there are ", count, " tail blocks");
    Ids ids;
    for (std::uint64_t i = 0; i < count; ++i) {
        TailBlock block{};
        block.id = head.ReadInteger();
        const std::string name = "tail block " + Number(block.id);
        Require(block.id <= TailBlockLimit(limit), name, "'s id is too high");
        Require(ids.Add(block.id), name, " appears twice");
        for (std::uint64_t& page : block.pages) {
            page = head.ReadInteger();
            Require(IsPageNumber(page), name, " has a page ", page);
        }
        block.freeBytes = head.ReadInteger();
        Require(block.freeBytes <= kTailBlockSize, name, " has ", block.freeBytes, " bytes free");
        const std::uint64_t streams = head.ReadInteger();
        for (std::uint64_t k = 0; k < streams; ++k) {
            block.streams.push_back(head.ReadInteger());
        }
        state.blocks.push_back(block);
    }
}

void ReadFragments(HeadFileReader& head, std::uint64_t limit, PackageState& state) {
    Ids blocks;
    for (const TailBlock& block : state.blocks) {
        blocks.Add(block.id);
    }
    const std::uint64_t count = head.ReadInteger();
    Require(count <= limit, "there are ", count, " fragments");
    Ids ids;
    for (std::uint64_t i = 0; i < count; ++i) {
        Fragment fragment{};
        fragment.streamId = head.ReadInteger();
        fragment.blockId = head.ReadInteger();
        fragment.index = head.ReadInteger();
        fragment.offset = head.ReadInteger();
        fragment.length = head.ReadInteger();
        const std::string name = "stream " + Number(fragment.streamId) + "'s fragment ";
        Require(fragment.streamId <= limit, name, "has too high an id");
        Require(blocks.Has(fragment.blockId), name, "lies in tail block ", fragment.blockId,
                ", which is missing");
        Require(fragment.index < limit, name, "has index ", fragment.index);
        Require(fragment.offset < kTailBlockSize, name, "begins at ", fragment.offset);
        Require(fragment.length < kPageSize, name, "has ", fragment.length, " bytes");
        Require(ids.Add(fragment.streamId), name, "appears twice");
        state.fragments.push_back(fragment);
    }
}

}  // namespace

std::uint64_t PackageState::Link(std::uint64_t page) const {
    return page - kFirstPage < links.size() ? links[page - kFirstPage] : kFreePage;
}

std::uint64_t TailBlockLimit(std::uint64_t streamLimit) {
    return streamLimit < 8 ? 1 : streamLimit / 8;
}

PackageImage ReadPackage(Bytes file, std::uint64_t streamLimit) {
    PackageImage image{ReadPackageState(MemorySource(file), streamLimit), {}};
    image.file = std::move(file);
    return image;
}

PackageState ReadPackageState(const FileSource& file, std::uint64_t streamLimit) {
    PackageState state;
    HeadFileReader head(file, state);
    ReadLinks(head, state);
    ReadDirectory(head, streamLimit, state);
    ReadTailBlocks(head, streamLimit, state);
    ReadFragments(head, streamLimit, state);
    state.headerData = head.Read(head.ReadInteger());
    return state;
}

bool IsMarked(const FileSource& file) {
    Bytes pageCount(8);
    if (file.Size() < kPageSize) { return false; }
    file.Read(0, pageCount.data(), pageCount.size());
    return LoadInteger(pageCount, 0, 8) == 0;
}

// A byte range of one page.
struct StreamReader::Piece {
    std::uint64_t page;
    std::uint64_t offset;
    std::uint64_t size;
};

StreamReader::StreamReader(const PackageImage& image)
    : state_(image), memory_(image.file), file_(*memory_) {
    IndexRecords();
}

StreamReader::StreamReader(const PackageState& state, const FileSource& file)
    : state_(state), file_(file) {
    IndexRecords();
}

void StreamReader::IndexRecords() {
    for (const StreamRecord& stream : state_.streams) {
        streams_[stream.id] = &stream;
    }
    for (const Fragment& fragment : state_.fragments) {
        fragments_[fragment.streamId] = &fragment;
    }
    for (const TailBlock& block : state_.blocks) {
        blocks_[block.id] = &block;
    }
}

const StreamRecord& StreamReader::Find(std::uint64_t id) const {
    const auto found = streams_.find(id);
    Require(found != streams_.end(), "stream ", id, " is missing");
    return *found->second;
}

std::uint64_t StreamReader::Size(std::uint64_t id) const {
    return Find(id).size;
}

std::vector<StreamReader::Piece> StreamReader::Pieces(std::uint64_t id) const {
    const std::string name = "stream " + Number(id);
    const StreamRecord& stream = Find(id);
    const auto fragment = fragments_.find(id);
    const std::uint64_t tail = fragment == fragments_.end() ? 0 : fragment->second->length;
    Require(stream.size == stream.pageCount * kPageSize + tail && IsReachableSize(stream.size),
            name, "'s size is ", stream.size, " bytes");
    Require(stream.size > 0, name, " is empty");
    Require(stream.pageCount + 2 <= kPageCountLimit, name, " has too many pages");

    std::vector<Piece> pieces;
    std::uint64_t page = stream.firstPage;
    for (std::uint64_t i = 0; i < stream.pageCount; ++i) {
        Require(IsPageNumber(page), name, "'s chain of pages ends early");
        Require(i == 0 || page != stream.firstPage, name, "'s chain of pages has no end");
        Require(state_.Link(page) != kFreePage, name, " has a free page");
        pieces.push_back({page, 0, kPageSize});
        page = state_.Link(page);
    }
    if (fragment != fragments_.end()) { AppendTail(*fragment->second, pieces); }
    return pieces;
}

std::vector<std::uint64_t> StreamReader::Pages(std::uint64_t id) const {
    std::vector<std::uint64_t> pages;
    for (const Piece& piece : Pieces(id)) {
        pages.push_back(piece.page);
    }
    return pages;
}

Bytes StreamReader::Read(std::uint64_t id) const {
    return Read(id, 0, Size(id));
}

Bytes StreamReader::Read(std::uint64_t id, std::uint64_t offset, std::uint64_t size) const {
    const std::vector<Piece> pieces = Pieces(id);
    for (const Piece& piece : pieces) {
        Require(PageOffset(piece.page) + kPageSize <= file_.Size(), "stream ", id, "'s page ",
                piece.page, " lies past the end of the file");
    }
    const std::uint64_t end = std::min(Size(id), offset + size);
    Bytes content(static_cast<std::size_t>(end - std::min(offset, end)));
    std::uint8_t* to = content.data();
    std::uint64_t start = 0;  // of the piece, in the stream
    for (const Piece& piece : pieces) {
        const std::uint64_t first = std::max(start, offset);
        const std::uint64_t last = std::min(start + piece.size, end);
        if (first < last) {
            file_.Read(PageOffset(piece.page) + piece.offset + first - start, to, last - first);
            to += last - first;
        }
        start += piece.size;
    }
    return content;
}

void StreamReader::AppendTail(const Fragment& fragment, std::vector<Piece>& pieces) const {
    const std::string name = "stream " + Number(fragment.streamId) + "'s fragment ";
    const TailBlock& block = *blocks_.at(fragment.blockId);
    Require(fragment.offset + fragment.length <= kTailBlockSize - block.freeBytes, name,
            "reaches into the free bytes");
    if (fragment.length == 0) { return; }
    const std::size_t slot = static_cast<std::size_t>(fragment.offset / kPageSize);
    const std::uint64_t offset = fragment.offset % kPageSize;
    const std::uint64_t here = std::min(fragment.length, kPageSize - offset);
    Require(state_.Link(block.pages[slot]) != kFreePage, name, "lies in a free page");
    pieces.push_back({block.pages[slot], offset, here});
    if (here < fragment.length) {
        Require(state_.Link(block.pages[slot]) == block.pages[slot + 1], name,
                "crosses to a page that does not follow");
        Require(state_.Link(block.pages[slot + 1]) != kFreePage, name, "ends in a free page");
        pieces.push_back({block.pages[slot + 1], 0, fragment.length - here});
    }
}

std::map<std::uint64_t, Bytes> ReadAllStreams(const PackageImage& image) {
    const StreamReader reader(image);
    std::map<std::uint64_t, Bytes> streams;
    for (const StreamRecord& stream : image.streams) {
        streams[stream.id] = stream.size == 0 ? Bytes() : reader.Read(stream.id);
    }
    return streams;
}

}  // namespace Quorvel::Format
