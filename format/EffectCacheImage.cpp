#include "format/EffectCacheImage.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "format/Require.h"

namespace Quorvel::Format {
namespace {

// The payload of the first block with the cache's tag. The search ends at a block that reaches past
// the end of the header data.
std::optional<Bytes> FindCacheBlock(const Bytes& headerData) {
    ByteReader reader(headerData, "the header data");
    while (reader.Left() >= kCacheBlockHeadSize) {
        const std::uint64_t tag = reader.TakeInteger(4);
        const std::uint64_t size = reader.TakeInteger(4);
        reader.TakeInteger(4);
        if (size > reader.Left()) { break; }
        Bytes payload = reader.Take(size);
        if (tag == kCacheHeaderTag) { return payload; }
    }
    return std::nullopt;
}

EffectRecord TakeRecord(ByteReader& reader) {
    EffectRecord record;
    record.streamId = reader.TakeInteger(8);
    record.nameLength = static_cast<std::uint32_t>(reader.TakeInteger(4));
    record.size = static_cast<std::uint32_t>(reader.TakeInteger(4));
    record.permanent = static_cast<std::uint32_t>(reader.TakeInteger(4));
    for (std::uint16_t* field : {&record.time.year, &record.time.month, &record.time.day,
                                 &record.time.hour, &record.time.minute, &record.time.second}) {
        *field = static_cast<std::uint16_t>(reader.TakeInteger(2));
    }
    record.time.millisecond = static_cast<std::uint32_t>(reader.TakeInteger(4));
    record.reserved = reader.TakeInteger(8);
    return record;
}

std::uint64_t IndexSize(const std::vector<IndexEntry>& entries) {
    std::uint64_t size = 0;
    for (const IndexEntry& entry : entries) {
        size += kEffectRecordSize + kLengthPrefixSize + entry.name.size();
    }
    return size;
}

class EffectCacheChecker {
public:
    EffectCacheChecker(const PackageState& state, const FileSource& file,
                       const ProblemSink& problem, bool readsEffects)
        : state_(state), file_(file), problem_(problem), readsEffects_(readsEffects) {}

    void Run() {
        CheckPackage(state_, file_.Size(), problem_);
        try {
            const CacheHeader header = ReadCacheHeader(state_.headerData);
            CheckIndex(header);
        } catch (const FormatError& error) {
            problem_(std::string("no intact effect cache: ") + error.what());
        }
    }

private:
    template <typename... Words>
    void Expect(bool holds, const Words&... otherwise) {
        if (!holds) {
            std::ostringstream line;
            (line << ... << otherwise);
            problem_(line.str());
        }
    }

    void CheckIndex(const CacheHeader& header);
    void CheckEffect(const StreamReader& streams, const IndexEntry& entry);
    void CheckOrphans();

    const PackageState& state_;
    const FileSource& file_;
    const ProblemSink& problem_;
    const bool readsEffects_;
    std::unordered_set<std::uint64_t> used_;  // streams that the cache refers to
};

void EffectCacheChecker::CheckIndex(const CacheHeader& header) {
    const StreamReader streams(state_, file_);
    const std::vector<IndexEntry> entries = ReadIndex(streams, header);
    const std::uint64_t indexSize = streams.Size(header.indexStream);
    used_.insert(header.indexStream);

    // The index of an empty cache is one meaningless byte.
    const std::uint64_t size = entries.empty() ? 1 : IndexSize(entries);
    Expect(indexSize == size, "the index stream has ", indexSize, " bytes instead of ", size);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        Expect(i == 0 || NameOrder()(entries[i - 1].name, entries[i].name), "the names of records ",
               i - 1, " and ", i, " are not in order");
        CheckEffect(streams, entries[i]);
    }
    CheckOrphans();
}

void EffectCacheChecker::CheckEffect(const StreamReader& streams, const IndexEntry& entry) {
    const std::string name = "effect \"" + entry.name + "\"";
    Expect(entry.record.permanent <= 1, name, " has the permanent flag ", entry.record.permanent);
    Expect(used_.insert(entry.record.streamId).second, name, " shares stream ",
           entry.record.streamId);
    try {
        streams.Size(entry.record.streamId);
        if (readsEffects_) { ReadEffect(streams, entry.record); }
    } catch (const FormatError& error) {
        Expect(false, name, " of ", entry.record.size, " bytes can't be read: ", error.what());
    }
}

void EffectCacheChecker::CheckOrphans() {
    for (const StreamRecord& stream : state_.streams) {
        Expect(used_.count(stream.id) != 0, "stream ", stream.id, " belongs to no effect");
    }
}

}  // namespace

bool HoldsEffectCache(const Bytes& headerData) {
    return FindCacheBlock(headerData).has_value();
}

CacheHeader ParseCacheHeader(const Bytes& headerData) {
    const std::optional<Bytes> block = FindCacheBlock(headerData);
    Require(block.has_value(), "the header data has no cache block");
    ByteReader reader(*block, "the cache's header");
    CacheHeader header;
    header.version = static_cast<std::uint32_t>(reader.TakeInteger(4));
    header.effectCount = reader.TakeInteger(8);
    header.indexStream = reader.TakeInteger(8);
    header.reserved = reader.TakeInteger(8);
    return header;
}

CacheHeader ReadCacheHeader(const Bytes& headerData) {
    const CacheHeader header = ParseCacheHeader(headerData);
    Require(header.version == kCacheVersion, "the cache's version is ", header.version);
    Require(header.effectCount <= kEffectCountLimit, "the cache has ", header.effectCount,
            " effects");
    return header;
}

IndexEntry TakeIndexEntry(ByteReader& reader, std::uint64_t number) {
    IndexEntry entry;
    entry.record = TakeRecord(reader);
    Require(entry.record.nameLength >= 1 && entry.record.nameLength <= kNameLengthLimit, "record ",
            number, "'s name length is ", entry.record.nameLength);
    Require(entry.record.size >= 1 && entry.record.size <= kEffectSizeLimit, "record ", number,
            "'s effect size is ", entry.record.size);
    const std::uint64_t length = reader.TakeInteger(kLengthPrefixSize);
    Require(length == entry.record.nameLength, "record ", number, "'s name has ", length, " bytes");
    const Bytes name = reader.Take(length);
    entry.name.assign(name.begin(), name.end());
    return entry;
}

// The index is read in windows: long names make it large.
std::vector<IndexEntry> ReadIndex(const StreamReader& streams, const CacheHeader& header) {
    constexpr std::uint64_t kWindowSize = 1 << 20;
    constexpr std::uint64_t kLargestEntry =
        kEffectRecordSize + kLengthPrefixSize + kNameLengthLimit;
    const std::uint64_t size = streams.Size(header.indexStream);
    std::vector<IndexEntry> entries;
    entries.reserve(
        static_cast<std::size_t>(std::min(header.effectCount, size / kEffectRecordSize)));
    std::uint64_t offset = 0;  // of the first entry in the window
    do {
        const Bytes window = streams.Read(header.indexStream, offset, kWindowSize);
        const bool isLast = offset + window.size() == size;
        ByteReader reader(window, "the index stream");
        while (entries.size() < header.effectCount && (isLast || reader.Left() >= kLargestEntry)) {
            entries.push_back(TakeIndexEntry(reader, entries.size()));
        }
        offset += window.size() - reader.Left();
    } while (entries.size() < header.effectCount);
    return entries;
}

std::vector<IndexEntry> FindableEntries(const PackageState& state, std::uint64_t indexStream,
                                        std::vector<IndexEntry> entries) {
    std::unordered_map<std::uint64_t, unsigned> namings;
    for (const StreamRecord& stream : state.streams) {
        namings[stream.id] = stream.id == indexStream ? 1 : 0;
    }
    for (const IndexEntry& entry : entries) {
        const auto naming = namings.find(entry.record.streamId);
        if (naming != namings.end()) { ++naming->second; }
    }
    const auto isBefore = [](const auto& left, const auto& right) {
        return NameOrder()(left.name, right.name);
    };
    // Usually the writer has sorted them, and a stable sort takes more memory.
    if (!std::is_sorted(entries.begin(), entries.end(), isBefore)) {
        std::stable_sort(entries.begin(), entries.end(), isBefore);
    }
    std::size_t found = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (i + 1 < entries.size() && entries[i].name == entries[i + 1].name) { continue; }
        const auto naming = namings.find(entries[i].record.streamId);
        if (naming != namings.end() && naming->second == 1) {
            std::swap(entries[found++], entries[i]);
        }
    }
    entries.resize(found);
    return entries;
}

Bytes ReadEffect(const StreamReader& streams, const EffectRecord& record) {
    const std::uint64_t streamSize = streams.Size(record.streamId);
    Require(streamSize <= kLengthPrefixSize + kEffectSizeLimit, "the data stream has ", streamSize,
            " bytes");
    const Bytes stream = streams.Read(record.streamId);
    ByteReader reader(stream, "the data stream");
    const std::uint64_t size = reader.TakeInteger(kLengthPrefixSize);
    Require(size == record.size && size == reader.Left(), "the data stream of ", stream.size(),
            " bytes states a length of ", size);
    return reader.Take(size);
}

Effects ReadEffectCache(const PackageImage& image) {
    const CacheHeader header = ReadCacheHeader(image.headerData);
    const StreamReader streams(image);
    Effects effects;
    for (const IndexEntry& entry : ReadIndex(streams, header)) {
        effects[entry.name] = {entry.record, ReadEffect(streams, entry.record)};
    }
    return effects;
}

std::vector<std::string> CheckEffectCache(const Bytes& file) {
    try {
        return CheckEffectCache(ReadPackage(file, kCacheStreamLimit));
    } catch (const FormatError& error) {
        return {std::string("no intact package: ") + error.what()};
    }
}

std::vector<std::string> CheckEffectCache(const PackageImage& image) {
    std::vector<std::string> problems;
    const MemorySource file(image.file);
    const ProblemSink problem = [&](const std::string& line) { problems.push_back(line); };
    EffectCacheChecker(image, file, problem, true).Run();
    return problems;
}

void CheckEffectCacheStructure(const PackageState& state, const FileSource& file,
                               const ProblemSink& problem) {
    EffectCacheChecker(state, file, problem, false).Run();
}

}  // namespace Quorvel::Format
