#include "format/SalvageReader.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>
#include <tuple>

namespace Quorvel::Format {
namespace {

// A cache's header data has one small block, and perhaps blocks of other programs.
constexpr std::uint64_t kMostHeaderData = 1 << 20;

constexpr const char* kTwoNames = "another record of the index has its name";
constexpr const char* kTwoStreams = "another record of the index names its stream";
constexpr const char* kNoRecord = "its stream has no valid record in the directory";
constexpr const char* kOtherSize = "its stream has another size";
constexpr const char* kBrokenChain = "its chain of pages is broken";
constexpr const char* kBrokenTail = "its tail is missing or damaged";
constexpr const char* kClaimedTwice = "something else claims a page or a byte of it";
constexpr const char* kPastTheEnd = "it reaches past the end of the file";
constexpr const char* kUnreadable = "the system can't read it";
constexpr const char* kOtherBytes = "its bytes don't begin with its size";

bool IsInFile(const FileSource& file, std::uint64_t page) {
    return IsPageNumber(page) && PageOffset(page) + kPageSize <= file.Size();
}

bool TryRead(const FileSource& file, std::uint64_t offset, std::uint8_t* to, std::uint64_t size) {
    try {
        file.Read(offset, to, size);
        return true;
    } catch (const std::runtime_error&) { return false; }
}

void CountUpToTwo(std::uint8_t& count) {
    count = static_cast<std::uint8_t>(std::min(count + 1, 2));
}

// Maps ids to their records, or to null if several records have the same id.
template <typename Record>
std::unordered_map<std::uint64_t, const Record*> ById(const std::vector<Record>& records) {
    std::unordered_map<std::uint64_t, const Record*> found;
    for (const Record& record : records) {
        const auto [place, isNew] = found.emplace(record.id, &record);
        if (!isNew) { place->second = nullptr; }
    }
    return found;
}

template <typename Map>
auto Find(const Map& map, std::uint64_t id) -> typename Map::mapped_type {
    const auto found = map.find(id);
    return found == map.end() ? nullptr : found->second;
}

bool IsValid(const StreamRecord& stream) {
    return stream.id <= kCacheStreamLimit && stream.size > 0 &&
           stream.pageCount == stream.size / kPageSize &&
           (stream.pageCount == 0 ? stream.firstPage == 0 : IsPageNumber(stream.firstPage));
}

// True if a record with valid lengths lies at a position of the index.
bool IsRecord(const Bytes& index, std::size_t position) {
    constexpr std::size_t kHead = kEffectRecordSize + kLengthPrefixSize;
    if (index.size() < kHead || position > index.size() - kHead) { return false; }
    const std::uint64_t length = LoadInteger(index, position + 8, 4);
    const std::uint64_t size = LoadInteger(index, position + 12, 4);
    return length >= 1 && length <= kNameLengthLimit && size >= 1 && size <= kEffectSizeLimit &&
           LoadInteger(index, position + kEffectRecordSize, 8) == length &&
           length <= index.size() - kHead - position;
}

}  // namespace

// Reads the head file from front to back. Ignores the page count, the byte size and the ends of
// data in its pages: all pages but the last are full, and the tables say where they end. A page
// that can't be read counts as zeros.
class SalvageReader::HeadFile {
public:
    // Adds the pages that it enters to the state.
    HeadFile(const FileSource& file, PackageState& state)
        : file_(file), state_(state), entered_(kPageCountLimit), page_(kPageSize) {
        isOpen_ = Enter(kFirstPage);
        offset_ = kFirstHeadPageHeader;
    }

    // Takes integers. False if the chain ends first.
    template <std::size_t N>
    bool Take(std::array<std::uint64_t, N>& values) {
        const Bytes bytes = TakeBytes(8 * N);
        for (std::size_t i = 0; 8 * (i + 1) <= bytes.size(); ++i) {
            values[i] = LoadInteger(bytes, 8 * i, 8);
        }
        return bytes.size() == 8 * N;
    }

    bool Take(std::uint64_t& value) {
        std::array<std::uint64_t, 1> values{};
        const bool isThere = Take(values);
        value = values[0];
        return isThere;
    }

    // Takes bytes, fewer if the chain ends first.
    Bytes TakeBytes(std::uint64_t size) {
        Bytes bytes;
        while (isOpen_ && bytes.size() < size) {
            if (offset_ == kPageSize && !EnterNext()) { break; }
            const std::uint64_t count = std::min(size - bytes.size(), kPageSize - offset_);
            const auto from = page_.begin() + static_cast<std::ptrdiff_t>(offset_);
            bytes.insert(bytes.end(), from, from + static_cast<std::ptrdiff_t>(count));
            offset_ += count;
        }
        return bytes;
    }

private:
    // If the page does not name the next one, the link table does.
    bool EnterNext() {
        const std::uint64_t here = state_.headPages.back().number;
        const std::uint64_t next = LoadInteger(page_, here == kFirstPage ? 16 : 0, 8);
        isOpen_ = Enter(next) || Enter(state_.Link(here));
        offset_ = kHeadPageHeader;
        return isOpen_;
    }

    bool Enter(std::uint64_t number) {
        if (!IsInFile(file_, number)) { return false; }
        const auto index = static_cast<std::size_t>(number - kFirstPage);
        if (entered_[index]) { return false; }
        entered_[index] = true;
        page_.assign(kPageSize, 0);
        TryRead(file_, PageOffset(number), page_.data(), kPageSize);
        state_.headPages.push_back({number, 0, 0});
        return true;
    }

    const FileSource& file_;
    PackageState& state_;
    std::vector<bool> entered_;
    Bytes page_;                // the last page entered
    std::uint64_t offset_ = 0;  // in that page
    bool isOpen_ = false;
};

SalvageReader::SalvageReader(const FileSource& file) : file_(file), pages_(kPageCountLimit) {
    if (file.Size() < kPageSize) {
        damage_.push_back("the file has no first page");
        return;
    }
    if (IsMarked(file)) { damage_.push_back("a save was interrupted"); }
    ReadTables();
    ReadIndex();
}

// ---- Tables -------------------------------------------------------------------------------------

void SalvageReader::ReadTables() {
    HeadFile head(file_, state_);
    const auto check = [&](bool isComplete, const char* table) {
        if (!isComplete) {
            damage_.push_back(std::string("the ") + table +
                              " can't be read to its end, nor what follows");
        }
        return isComplete;
    };
    const bool isComplete = check(ReadLinks(head), "link table") &&
                            check(ReadDirectory(head), "stream directory") &&
                            check(ReadTailBlocks(head), "table of tail blocks") &&
                            check(ReadFragments(head), "table of fragments");
    std::uint64_t size = 0;
    if (isComplete && check(head.Take(size), "header data")) {
        state_.headerData = head.TakeBytes(std::min(size, kMostHeaderData));
        if (!HoldsEffectCache(state_.headerData)) {
            // The size may be damaged.
            Append(state_.headerData, head.TakeBytes(kPageSize));
        }
    }
    ClaimPages();
}

bool SalvageReader::ReadLinks(HeadFile& head) {
    std::uint64_t count = 0;
    if (!head.Take(count) || count > kPageCountLimit) { return false; }
    for (std::uint64_t link = 0; state_.links.size() < count;) {
        if (!head.Take(link)) { return false; }
        state_.links.push_back(link);
    }
    return true;
}

bool SalvageReader::ReadDirectory(HeadFile& head) {
    std::uint64_t count = 0;
    if (!head.Take(count) || count > kCacheStreamLimit) { return false; }
    std::vector<std::uint64_t> damaged;  // ids
    std::array<std::uint64_t, 4> values{};
    std::uint64_t done = 0;
    for (; done < count && head.Take(values); ++done) {
        const StreamRecord stream = {values[0], values[1], values[2], values[3]};
        if (IsPageNumber(stream.firstPage)) { firstPages_.push_back(stream.firstPage); }
        if (IsValid(stream)) {
            state_.streams.push_back(stream);
        } else {
            damaged.push_back(stream.id);
        }
    }
    if (!damaged.empty()) {
        damage_.push_back("records of the stream directory that are not valid: " +
                          std::to_string(damaged.size()));
    }
    streams_ = ById(state_.streams);
    for (const std::uint64_t id : damaged) {
        streams_[id] = nullptr;  // a valid record with this id may be another stream's
    }
    return done == count;
}

bool SalvageReader::ReadTailBlocks(HeadFile& head) {
    std::uint64_t count = 0;
    if (!head.Take(count) || count > TailBlockLimit(kCacheStreamLimit)) { return false; }
    std::uint64_t listed = 0;
    std::array<std::uint64_t, 3 + kTailBlockPages> values{};
    while (state_.blocks.size() < count) {
        if (!head.Take(values)) { return false; }
        TailBlock block{values[0], {}, values[kTailBlockPages + 1], {}};
        std::copy_n(values.begin() + 1, kTailBlockPages, block.pages.begin());
        // A stream has at most one fragment.
        const std::uint64_t length = values.back();
        listed += length;
        if (length > kCacheStreamLimit || listed > kCacheStreamLimit) { return false; }
        for (std::uint64_t stream = 0; block.streams.size() < length;) {
            if (!head.Take(stream)) { return false; }
            block.streams.push_back(stream);
        }
        state_.blocks.push_back(std::move(block));
    }
    blocks_ = ById(state_.blocks);
    return true;
}

bool SalvageReader::ReadFragments(HeadFile& head) {
    std::uint64_t count = 0;
    if (!head.Take(count) || count > kCacheStreamLimit) { return false; }
    std::vector<Fragment> fragments;
    std::array<std::uint64_t, 5> values{};
    std::uint64_t done = 0;
    for (; done < count && head.Take(values); ++done) {
        const Fragment fragment = {values[0], values[1], values[2], values[3], values[4]};
        if (Find(blocks_, fragment.blockId) && fragment.offset < kTailBlockSize &&
            fragment.length >= 1 && fragment.length < kPageSize) {
            fragments.push_back(fragment);
        }
    }
    KeepFragments(std::move(fragments));
    return done == count;
}

// If two fragments overlap, either of them may own the bytes.
void SalvageReader::KeepFragments(std::vector<Fragment> fragments) {
    std::sort(fragments.begin(), fragments.end(), [](const Fragment& left, const Fragment& right) {
        return std::tie(left.blockId, left.offset) < std::tie(right.blockId, right.offset);
    });
    std::vector<bool> overlaps(fragments.size());
    std::size_t furthest = 0;  // the fragment so far that ends last
    for (std::size_t i = 1; i < fragments.size(); ++i) {
        const Fragment& before = fragments[furthest];
        const bool isSameBlock = before.blockId == fragments[i].blockId;
        const std::uint64_t end = before.offset + before.length;
        if (isSameBlock && end > fragments[i].offset) {
            overlaps[furthest] = true;
            overlaps[i] = true;
        }
        if (!isSameBlock || fragments[i].offset + fragments[i].length > end) { furthest = i; }
    }
    for (std::size_t i = 0; i < fragments.size(); ++i) {
        const char* const fault = overlaps[i] ? kClaimedTwice : FaultOf(fragments[i]);
        const auto [place, isNew] =
            tails_.emplace(fragments[i].streamId, Tail{fragments[i], fault});
        if (!isNew) { place->second.fault = kBrokenTail; }
    }
}

const char* SalvageReader::FaultOf(const Fragment& fragment) const {
    const TailBlock& block = *Find(blocks_, fragment.blockId);
    const bool isListed =
        fragment.index < block.streams.size() &&
        block.streams[static_cast<std::size_t>(fragment.index)] == fragment.streamId;
    const bool isUsed = block.freeBytes <= kTailBlockSize &&
                        fragment.offset + fragment.length <= kTailBlockSize - block.freeBytes;
    return isListed && isUsed ? nullptr : kBrokenTail;
}

void SalvageReader::ClaimPages() {
    for (const std::uint64_t link : state_.links) {
        if (IsPageNumber(link)) { CountUpToTwo(At(link).predecessors); }
    }
    for (const HeadPage& page : state_.headPages) {
        CountUpToTwo(At(page.number).others);
    }
    for (const TailBlock& block : state_.blocks) {
        for (const std::uint64_t page : block.pages) {
            if (IsPageNumber(page)) { CountUpToTwo(At(page).others); }
        }
    }
    for (std::uint64_t page : firstPages_) {
        // Once two chains have met, they stay the same.
        while (IsPageNumber(page) && At(page).chains < 2) {
            ++At(page).chains;
            page = state_.Link(page);
        }
    }
}

// ---- Index --------------------------------------------------------------------------------------

void SalvageReader::ReadIndex() {
    CacheHeader header;
    try {
        header = ParseCacheHeader(state_.headerData);
    } catch (const FormatError& error) {
        damage_.push_back(error.what());
        return;
    }
    if (header.version != kCacheVersion) {
        damage_.push_back("the cache's version is " + std::to_string(header.version));
    }
    indexStream_ = header.indexStream;
    const StreamRecord* const stream = Find(streams_, indexStream_);
    if (!stream) {
        damage_.push_back("the index has no valid record in the directory");
        return;
    }
    Bytes index;
    const char* const fault = ReadStream(*stream, index);
    if (fault) { damage_.push_back(std::string("the index: ") + fault); }
    hasWholeIndex_ = !fault;
    // The index of an empty cache is one meaningless byte.
    if (header.effectCount != 0 || index.size() != 1) { ReadRecords(index); }
    if (entries_.size() != header.effectCount) {
        hasWholeIndex_ = false;
        damage_.push_back("the cache's header states " + std::to_string(header.effectCount) +
                          " effects, the index has " + std::to_string(entries_.size()));
    }
}

// Reads records up to the end of the index, whatever number of them the header states. After
// damage, it goes on with the next record that fits a stream.
void SalvageReader::ReadRecords(const Bytes& index) {
    std::size_t skipped = 0;
    for (std::size_t position = 0; position < index.size();) {
        const std::size_t next = FindRecord(index, position);
        skipped += next - position;
        if (next == index.size()) { break; }
        ByteReader reader(index, "the index", next);
        entries_.push_back(TakeIndexEntry(reader, entries_.size()));
        position = index.size() - reader.Left();
    }
    if (skipped > 0) {
        hasWholeIndex_ = false;
        damage_.push_back("bytes of the index that belong to no valid record: " +
                          std::to_string(skipped));
    }
}

// The position of the next record; the end of the index if there is none.
std::size_t SalvageReader::FindRecord(const Bytes& index, std::size_t position) const {
    if (IsRecord(index, position)) { return position; }
    for (++position; position < index.size(); ++position) {
        if (!IsRecord(index, position)) { continue; }
        const StreamRecord* const stream = Find(streams_, LoadInteger(index, position, 8));
        const std::uint64_t size = LoadInteger(index, position + 12, 4);
        if (stream && stream->size == kLengthPrefixSize + size) { break; }
    }
    return position;
}

// For each record of the index, in order: a text that says if another record has its name or its
// stream has another owner; otherwise null.
std::vector<const char*> SalvageReader::FindAmbiguousRecords() const {
    std::unordered_map<std::string_view, unsigned> names;
    std::unordered_map<std::uint64_t, unsigned> namings = {{indexStream_, 1}};
    for (const auto& [name, record] : entries_) {
        ++names[name];
        ++namings[record.streamId];
    }
    std::vector<const char*> faults;
    for (const auto& [name, record] : entries_) {
        faults.push_back(names[name] > 1                ? kTwoNames
                         : namings[record.streamId] > 1 ? kTwoStreams
                                                        : nullptr);
    }
    return faults;
}

// ---- Effects ------------------------------------------------------------------------------------

void SalvageReader::ForEach(const EffectSink& whole, const LostSink& lost) const {
    const std::vector<const char*> faults = FindAmbiguousRecords();
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        Bytes data;
        const char* const fault = faults[i] ? faults[i] : ReadWhole(entries_[i], data);
        if (fault) {
            lost(entries_[i], fault);
        } else {
            whole(entries_[i], data);
        }
    }
}

const char* SalvageReader::ReadWhole(const IndexEntry& entry, Bytes& data) const {
    const StreamRecord* const stream = Find(streams_, entry.record.streamId);
    if (!stream) { return kNoRecord; }
    if (stream->size != kLengthPrefixSize + entry.record.size) { return kOtherSize; }
    Bytes bytes;
    if (const char* const fault = ReadStream(*stream, bytes)) { return fault; }
    if (LoadInteger(bytes, 0, kLengthPrefixSize) != entry.record.size) { return kOtherBytes; }
    data.assign(bytes.begin() + kLengthPrefixSize, bytes.end());
    return nullptr;
}

// Reads a stream. Returns what is wrong with it, or null. In a faulty stream the bytes end where
// the chain can't be followed, and are zero for pages that may not belong to the stream.
const char* SalvageReader::ReadStream(const StreamRecord& stream, Bytes& bytes) const {
    const char* fault = nullptr;
    std::uint64_t page = stream.firstPage;
    for (std::uint64_t i = 0; i < stream.pageCount; ++i) {
        if (!IsPageNumber(page)) { return kBrokenChain; }
        if (At(page).chains != 1) { return kClaimedTwice; }
        if (bytes.size() > file_.Size()) { return kPastTheEnd; }
        const bool isExpected = At(page).predecessors == (i == 0 ? 0 : 1);
        const char* const here = !isExpected            ? kBrokenChain
                                 : At(page).others != 0 ? kClaimedTwice
                                                        : nullptr;
        const std::size_t end = bytes.size() + kPageSize;
        const char* const reading = here ? here : ReadPage(page, 0, kPageSize, bytes);
        bytes.resize(end);
        fault = fault ? fault : reading;
        page = state_.Link(page);
    }
    if (stream.pageCount > 0 && page != kChainEnd) { return kBrokenChain; }
    const char* const tail = ReadTail(stream, bytes);
    return fault ? fault : tail;
}

// True if the link table connects a page of the block with another of its pages as the block says.
bool SalvageReader::IsConfirmed(const TailBlock& block, std::size_t slot) const {
    for (std::size_t other = 0; other < kTailBlockPages; ++other) {
        const std::size_t last = std::max(slot, other);
        std::uint64_t page = block.pages[std::min(slot, other)];
        for (std::size_t i = std::min(slot, other); i < last; ++i) {
            page = state_.Link(page);
        }
        if (other != slot && page == block.pages[last]) { return true; }
    }
    return false;
}

const char* SalvageReader::ReadTail(const StreamRecord& stream, Bytes& bytes) const {
    const std::uint64_t length = stream.size % kPageSize;
    const auto tail = tails_.find(stream.id);
    if (tail == tails_.end()) { return length == 0 ? nullptr : kBrokenTail; }
    if (tail->second.fault) { return tail->second.fault; }
    const Fragment& fragment = tail->second.fragment;
    const TailBlock& block = *Find(blocks_, fragment.blockId);
    const std::uint64_t end = fragment.offset + fragment.length;
    if (fragment.length != length) { return kBrokenTail; }
    for (std::uint64_t offset = fragment.offset, before = 0; offset < end;) {
        const auto slot = static_cast<std::size_t>(offset / kPageSize);
        const std::uint64_t size = std::min(end, (slot + 1) * kPageSize) - offset;
        const std::uint64_t page = block.pages[slot];
        if (!IsPageNumber(page) || state_.Link(page) == kFreePage || !IsConfirmed(block, slot) ||
            (before != 0 && state_.Link(before) != page)) {
            return kBrokenTail;
        }
        if (At(page).others != 1 || At(page).chains != 0) { return kClaimedTwice; }
        if (const char* const fault = ReadPage(page, offset % kPageSize, size, bytes)) {
            return fault;
        }
        offset += size;
        before = page;
    }
    return nullptr;
}

// Appends bytes of a page.
const char* SalvageReader::ReadPage(std::uint64_t page, std::uint64_t offset, std::uint64_t size,
                                    Bytes& bytes) const {
    if (!IsInFile(file_, page)) { return kPastTheEnd; }
    const std::size_t end = bytes.size();
    bytes.resize(end + static_cast<std::size_t>(size));
    const bool isRead = TryRead(file_, PageOffset(page) + offset, bytes.data() + end, size);
    return isRead ? nullptr : kUnreadable;
}

}  // namespace Quorvel::Format
