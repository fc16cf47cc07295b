#include "effectcache/EffectRecord.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "effectcache/PlatformStubs.h"

namespace Quorvel {

namespace {

using Bytes = std::vector<unsigned char>;

template <typename T>
Bytes BytesOf(const T& record) {
    Bytes bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

TEST(EffectRecord, HeaderBlockIsTwelveBytes) {
    const HeaderBlock block = {kCacheHeaderTag, 28, 0};
    EXPECT_EQ(BytesOf(block), (Bytes{0x96, 0x90, 0x32, 0x01, 28, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(EffectRecord, CacheHeaderIsTwentyEightBytesWithoutPadding) {
    const CacheHeader header = {7, 0x0102030405060708, 0x1112131415161718, 0x2122232425262728};
    EXPECT_EQ(BytesOf(header), (Bytes{7,    0,    0,    0,                             //
                                      0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  //
                                      0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11,  //
                                      0x28, 0x27, 0x26, 0x25, 0x24, 0x23, 0x22, 0x21}));
}

TEST(EffectRecord, EntryTimeIsSixteenBytes) {
    const EntryTime time = {2024, 2, 29, 23, 59, 58, 987};
    EXPECT_EQ(BytesOf(time),
              (Bytes{0xE8, 0x07, 2, 0, 29, 0, 23, 0, 59, 0, 58, 0, 0xDB, 0x03, 0, 0}));
}

TEST(EffectRecord, RecordIsFortyFourBytesWithoutPadding) {
    const EffectRecord record = {
        0x0102030405060708, 0x11121314, 0x21222324, 1, {2024, 2, 29, 23, 59, 58, 987},
        0x3132333435363738};
    EXPECT_EQ(
        BytesOf(record),
        (Bytes{0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,                                  //
               0x14, 0x13, 0x12, 0x11, 0x24, 0x23, 0x22, 0x21, 1,  0, 0,  0,                    //
               0xE8, 0x07, 2,    0,    29,   0,    23,   0,    59, 0, 58, 0, 0xDB, 0x03, 0, 0,  //
               0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31}));
}

TEST(EffectRecord, LimitsAreInclusive) {
    EXPECT_EQ(kShortestName, 1u);
    EXPECT_EQ(kLongestName, 65536u);
    EXPECT_EQ(kSmallestEffect, 1u);
    EXPECT_EQ(kLargestEffect, 1048576u);
    EXPECT_EQ(kMostEffects, 8388608u);
}

TEST(EffectRecord, IndexEntrySizeIncludesTheLengthPrefix) {
    EXPECT_EQ(IndexEntrySize(1), 53u);
    EXPECT_EQ(IndexEntrySize(65536), 65588u);
}

TEST(EntryTime, NowIsTheLocalTime) {
    const Testing::ClockStub clock({2031, 12, 24, 18, 5, 6, 789});
    EXPECT_EQ(BytesOf(CurrentEntryTime()), BytesOf(EntryTime{2031, 12, 24, 18, 5, 6, 789}));
}

// One field decides the order of two neighbouring times, although the next field contradicts it.
TEST(EntryTime, IsOrderedByItsFieldsFromTheYearDown) {
    const std::array<EntryTime, 8> ascending = {{{2020, 12, 31, 23, 59, 59, 999},
                                                 {2021, 1, 31, 23, 59, 59, 999},
                                                 {2021, 2, 1, 23, 59, 59, 999},
                                                 {2021, 2, 2, 1, 59, 59, 999},
                                                 {2021, 2, 2, 2, 1, 59, 999},
                                                 {2021, 2, 2, 2, 2, 1, 999},
                                                 {2021, 2, 2, 2, 2, 2, 1},
                                                 {2021, 2, 2, 2, 2, 2, 2}}};
    for (std::size_t left = 0; left < ascending.size(); ++left) {
        for (std::size_t right = 0; right < ascending.size(); ++right) {
            EXPECT_EQ(IsEarlier(ascending[left], ascending[right]), left < right)
                << left << " and " << right;
        }
    }
}

}  // namespace

}  // namespace Quorvel
