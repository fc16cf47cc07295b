#pragma once

#include <cstddef>
#include <cstdint>

// What the effect cache keeps in its package file: a block of the header data that holds a
// CacheHeader; an index stream with an EffectRecord and a name for each effect; and a stream for
// each effect's bytes.
namespace Quorvel {

// All inclusive.
constexpr std::uint64_t kShortestName = 1;
constexpr std::uint64_t kLongestName = 0x10000;
constexpr std::uint64_t kSmallestEffect = 1;
constexpr std::uint64_t kLargestEffect = 0x100000;
constexpr std::uint64_t kMostEffects = 8388608;  // that a header may state

// The cache's package has at most this many streams, and no higher stream id.
constexpr std::uint64_t kStreamLimit = 65535;

constexpr std::uint32_t kCacheVersion = 7;

// Names and effects are stored as byte arrays after their length (8 bytes).
constexpr std::uint64_t kLengthPrefixSize = 8;

#pragma pack(push, 1)
// The head of a block of the header data. Blocks follow each other without padding.
struct HeaderBlock {
    std::uint32_t tag;
    std::uint32_t payloadLength;
    std::uint32_t reserved;  // 0
};

// The cache's block has this tag; its payload is a CacheHeader.
constexpr std::uint32_t kCacheHeaderTag = 20091030;

struct CacheHeader {
    std::uint32_t version;
    std::uint64_t recordCount;
    std::uint64_t indexStreamId;  // all ones when there is none
    std::uint64_t reserved;       // 0
};

// A moment of local time.
struct EntryTime {
    std::uint16_t year;
    std::uint16_t month;
    std::uint16_t day;
    std::uint16_t hour;
    std::uint16_t minute;
    std::uint16_t second;
    std::uint32_t milliseconds;
};

struct EffectRecord {
    std::uint64_t streamId;  // of the stream that holds the effect's bytes
    std::uint32_t nameLength;
    std::uint32_t effectSize;
    std::uint32_t permanent;  // 1 for an effect that is never evicted, else 0
    EntryTime entryTime;      // when the effect was saved, or found since
    std::uint64_t reserved;   // written as 0, ignored by readers
};
#pragma pack(pop)

static_assert(sizeof(HeaderBlock) == 12);
static_assert(sizeof(CacheHeader) == 28);
static_assert(offsetof(CacheHeader, recordCount) == 4);
static_assert(offsetof(CacheHeader, indexStreamId) == 12);
static_assert(offsetof(CacheHeader, reserved) == 20);
static_assert(sizeof(EntryTime) == 16);
static_assert(offsetof(EntryTime, milliseconds) == 12);
static_assert(sizeof(EffectRecord) == 44);
static_assert(offsetof(EffectRecord, nameLength) == 8);
static_assert(offsetof(EffectRecord, effectSize) == 12);
static_assert(offsetof(EffectRecord, permanent) == 16);
static_assert(offsetof(EffectRecord, entryTime) == 20);
static_assert(offsetof(EffectRecord, reserved) == 36);

EntryTime CurrentEntryTime() noexcept;
bool IsEarlier(const EntryTime& left, const EntryTime& right) noexcept;

// Bytes that an effect takes in the index stream.
constexpr std::uint64_t IndexEntrySize(std::uint64_t nameLength) {
    return sizeof(EffectRecord) + kLengthPrefixSize + nameLength;
}

}  // namespace Quorvel
