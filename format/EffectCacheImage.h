#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "format/PackageCheck.h"
#include "format/PackageImage.h"

namespace Quorvel::Format {

constexpr std::uint32_t kCacheHeaderTag = 20091030;
constexpr std::uint64_t kCacheBlockHeadSize = 12;
constexpr std::uint64_t kCacheHeaderSize = 28;
constexpr std::uint32_t kCacheVersion = 7;
constexpr std::uint64_t kEffectCountLimit = 8388608;
constexpr std::uint64_t kEffectRecordSize = 44;
constexpr std::uint64_t kLengthPrefixSize = 8;
constexpr std::uint64_t kNameLengthLimit = 65536;
constexpr std::uint64_t kEffectSizeLimit = 1048576;
constexpr std::uint64_t kCacheStreamLimit = 65535;
constexpr std::uint64_t kNoStream = ~std::uint64_t{0};

struct CacheHeader {
    std::uint32_t version = kCacheVersion;
    std::uint64_t effectCount = 0;
    std::uint64_t indexStream = kNoStream;
    std::uint64_t reserved = 0;
};

struct EntryTime {
    std::uint16_t year = 0;
    std::uint16_t month = 0;
    std::uint16_t day = 0;
    std::uint16_t hour = 0;
    std::uint16_t minute = 0;
    std::uint16_t second = 0;
    std::uint32_t millisecond = 0;
};

struct EffectRecord {
    std::uint64_t streamId = 0;
    std::uint32_t nameLength = 0;
    std::uint32_t size = 0;
    std::uint32_t permanent = 0;
    EntryTime time;
    std::uint64_t reserved = 0;
};

struct IndexEntry {
    std::string name;
    EffectRecord record;
};

// The order of names in an index: shorter names first, names of equal length by unsigned bytes.
struct NameOrder {
    bool operator()(const std::string& left, const std::string& right) const {
        return left.size() != right.size() ? left.size() < right.size() : left < right;
    }
};

struct Effect {
    EffectRecord record;
    Bytes data;
};
using Effects = std::map<std::string, Effect, NameOrder>;

// True if a package's header data has the block of an effect cache.
bool HoldsEffectCache(const Bytes& headerData);

// The cache's header in a package's header data. ReadCacheHeader throws FormatError if a reader
// must refuse it, ParseCacheHeader only if it is missing or too short.
CacheHeader ReadCacheHeader(const Bytes& headerData);
CacheHeader ParseCacheHeader(const Bytes& headerData);

// The entries of a cache's index stream, in its order. Throws FormatError if a reader must refuse
// it.
std::vector<IndexEntry> ReadIndex(const StreamReader& streams, const CacheHeader& header);

// The next entry of an index stream. `number` identifies it in a FormatError.
IndexEntry TakeIndexEntry(ByteReader& reader, std::uint64_t number);

// The entries that a search may find, ordered by name. Of several entries with one name, that is
// the last; entries whose stream is missing, holds the index or has another entry are left out.
std::vector<IndexEntry> FindableEntries(const PackageState& state, std::uint64_t indexStream,
                                        std::vector<IndexEntry> entries);

// The bytes of an effect. Throws FormatError if its stream can't be read or does not hold an effect
// of that size.
Bytes ReadEffect(const StreamReader& streams, const EffectRecord& record);

// The effects in a cache file. If a name has two entries, the later one counts. Throws FormatError
// if the cache or one of its effects can't be read.
Effects ReadEffectCache(const PackageImage& image);

// Checks the rules that a writer of a cache file must follow, including those of CheckPackage, and
// returns one line for each violation.
std::vector<std::string> CheckEffectCache(const Bytes& file);
std::vector<std::string> CheckEffectCache(const PackageImage& image);

// The same for a file that has been parsed already, but without reading the effects.
void CheckEffectCacheStructure(const PackageState& state, const FileSource& file,
                               const ProblemSink& problem);

}  // namespace Quorvel::Format
