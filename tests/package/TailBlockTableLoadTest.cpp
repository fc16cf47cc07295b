#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "package/AllocationWatch.h"
#include "package/MemoryStream.h"
#include "package/TailBlockTable.h"
#include "quorvel/Exceptions.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;

using Words = std::vector<std::uint64_t>;

constexpr std::uint64_t kTableLimit = 24;

// The numbers of a sound state, in order: two blocks. The second one holds the tails of streams 5
// and 2.
const Words kState = {2,                                           // blocks
                      0, 11, 12, 13,  14,  15, 16, 17, 18, 65536,  // the first one
                      0,                                           // its streams
                      3, 21, 22, 23,  24,  25, 26, 27, 28, 65236,  // the second one
                      2, 5,  2,                                    // its streams
                      2,                                           // fragments
                      2, 3,  1,  100, 200,                         //
                      5, 3,  0,  0,   100};
enum Field : std::size_t {
    kBlockCount = 0,
    kFirstListCount = 11,
    kBlockId = 12,
    kPages = 13,
    kFreeBytes = 21,
    kListCount = 22,
    kFragmentCount = 25,
    kStreamId = 26,
    kFragmentBlock = 27,
    kListIndex = 28,
    kOffset = 29,
    kLength = 30,
    kSecondStreamId = 31,
};

Words With(Field field, std::uint64_t value) {
    Words words = kState;
    words[field] = value;
    return words;
}

bool Load(const Words& words, std::uint64_t limit = kTableLimit) {
    MemoryStream stream(BytesOf(words));
    return LoadFrom(TailBlockTable(), stream, limit);
}

// A state of `count` blocks and nothing else.
Words Blocks(std::uint64_t count) {
    Words words = {count};
    for (std::uint64_t id = 0; id < count; ++id) {
        words.insert(words.end(), {id, 11, 12, 13, 14, 15, 16, 17, 18, 65536, 0});
    }
    words.push_back(0);
    return words;
}

// A state of one block and `count` fragments.
Words Fragments(std::uint64_t count) {
    Words words = {1, 0, 11, 12, 13, 14, 15, 16, 17, 18, 0, 0, count};
    for (std::uint64_t id = 0; id < count; ++id) {
        words.insert(words.end(), {id, 0, 0, id, 1});
    }
    return words;
}

}  // namespace

TEST(TailBlockTableLoad, ReadsWhatWasSaved) {
    TailBlockTable table;
    MemoryStream stream(BytesOf(kState));
    EXPECT_TRUE(LoadFrom(table, stream, kTableLimit));
    EXPECT_EQ(stream.GetPosition(), stream.GetSize());

    const TailBlockRecord* const block = table.FindBlock(3);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->pages, (TailBlockPageNumbers{21, 22, 23, 24, 25, 26, 27, 28}));
    EXPECT_EQ(block->freeBytes, 65236U);
    EXPECT_EQ(block->streamIds, Words({5, 2}));
    const TailFragment* const fragment = table.FindFragment(2);
    ASSERT_NE(fragment, nullptr);
    EXPECT_EQ(fragment->blockId, 3U);
    EXPECT_EQ(fragment->listIndex, 1U);
    EXPECT_EQ(fragment->offset, 100U);
    EXPECT_EQ(fragment->length, 200U);
    EXPECT_TRUE(Saved(table) == BytesOf(kState));
}

TEST(TailBlockTableLoad, ContinuesFromTheSavedState) {
    TailBlockTable table;
    MemoryStream stream(BytesOf(kState));
    EXPECT_TRUE(LoadFrom(table, stream, kTableLimit));
    EXPECT_TRUE(table.Place(7, 3, 10));
    EXPECT_EQ(table.FindFragment(7)->offset, 300U);
    EXPECT_EQ(table.FindFragment(7)->listIndex, 2U);
    EXPECT_EQ(table.AddBlock({11, 12, 13, 14, 15, 16, 17, 18}), 1U);
    table.Remove(5);
    EXPECT_EQ(table.FindFragment(2)->offset, 0U);
    EXPECT_EQ(table.FindFragment(7)->offset, 200U);
}

TEST(TailBlockTableLoad, ReplacesWhatTheTableHad) {
    TailBlockTable table;
    const std::uint64_t block = table.AddBlock({11, 12, 13, 14, 15, 16, 17, 18});
    EXPECT_TRUE(table.Place(1, block, 100));
    MemoryStream stream(BytesOf({0, 0}));
    EXPECT_TRUE(LoadFrom(table, stream, kTableLimit));
    EXPECT_EQ(table.FindBlock(block), nullptr);
    EXPECT_EQ(table.FindFragment(1), nullptr);
    EXPECT_EQ(table.StateSize(), 16U);
}

TEST(TailBlockTableLoad, KeepsTheLimit) {
    TailBlockTable table;
    MemoryStream stream(BytesOf(Blocks(1)));
    EXPECT_TRUE(LoadFrom(table, stream, 8));
    EXPECT_THROW(static_cast<void>(table.Place(9, 0, 1)), InvalidParameterException);
    EXPECT_TRUE(table.Place(8, 0, 1));
}

TEST(TailBlockTableLoad, AcceptsAsManyBlocksAsAnEighthOfTheLimitAndRefusesOneMore) {
    EXPECT_TRUE(Load(Blocks(3), 24));
    EXPECT_TRUE(Load(Blocks(3), 31));
    EXPECT_THROW(Load(Blocks(4), 31), FileDataCorruptException);
    EXPECT_TRUE(Load(Blocks(4), 32));
}

TEST(TailBlockTableLoad, AcceptsOneBlockUnderTheSmallestLimitsAndRefusesTwo) {
    for (const std::uint64_t limit : {0U, 1U, 7U, 8U, 15U}) {
        EXPECT_TRUE(Load(Blocks(1), limit));
        EXPECT_THROW(Load(Blocks(2), limit), FileDataCorruptException) << limit;
    }
}

TEST(TailBlockTableLoad, RefusesADuplicateBlockId) {
    EXPECT_THROW(Load(With(kBlockId, 0)), FileDataCorruptException);
}

TEST(TailBlockTableLoad, AcceptsABlockIdAtAnEighthOfTheLimitAndRefusesOneAbove) {
    EXPECT_TRUE(Load(kState, 31));  // block 3
    EXPECT_THROW(Load(With(kBlockId, 4), 31), InvalidParameterException);
    EXPECT_THROW(Load(With(kBlockId, ~std::uint64_t{0}), 31), InvalidParameterException);
    Words one = Blocks(1);
    one[1] = 1;
    EXPECT_TRUE(Load(one, 7));
    one[1] = 2;
    EXPECT_THROW(Load(one, 7), InvalidParameterException);
}

TEST(TailBlockTableLoad, RefusesABlockIdAboveTheHighestWithAnyLimit) {
    EXPECT_THROW(Load(With(kBlockId, 0x1000000), ~std::uint64_t{0}), InvalidParameterException);
}

TEST(TailBlockTableLoad, RefusesABlockWithAnInvalidPageNumber) {
    for (std::size_t index = 0; index < kTailBlockPages; ++index) {
        const auto page = static_cast<Field>(kPages + index);
        EXPECT_TRUE(Load(With(page, 10)));
        EXPECT_TRUE(Load(With(page, 0xFFFFF)));
        EXPECT_THROW(Load(With(page, 0)), InvalidParameterException);
        EXPECT_THROW(Load(With(page, 9)), InvalidParameterException);
        EXPECT_THROW(Load(With(page, 0x100000)), InvalidParameterException);
    }
}

TEST(TailBlockTableLoad, RefusesABlockWithMoreFreeBytesThanItsSize) {
    EXPECT_TRUE(Load(With(kFreeBytes, 65536)));
    EXPECT_THROW(Load(With(kFreeBytes, 65537)), InvalidParameterException);
}

TEST(TailBlockTableLoad, RefusesAListLongerThanTheRestOfTheStream) {
    EXPECT_THROW(Load(With(kListCount, 14)), FileDataCorruptException);
    EXPECT_THROW(Load(With(kListCount, std::uint64_t{1} << 61)), FileDataCorruptException);
    EXPECT_THROW(Load(With(kFirstListCount, ~std::uint64_t{0})), FileDataCorruptException);
}

TEST(TailBlockTableLoad, AcceptsAsManyFragmentsAsTheLimitAndRefusesOneMore) {
    EXPECT_TRUE(Load(Fragments(24), 24));
    EXPECT_THROW(Load(Fragments(25), 24), FileDataCorruptException);
    EXPECT_TRUE(Load(Fragments(1), 1));
    EXPECT_THROW(Load(Fragments(1), 0), FileDataCorruptException);
}

TEST(TailBlockTableLoad, ReturnsFalseForAListIndexAtTheLimitOrAbove) {
    EXPECT_TRUE(Load(With(kListIndex, kTableLimit - 1)));
    EXPECT_FALSE(Load(With(kListIndex, kTableLimit)));
    EXPECT_FALSE(Load(With(kListIndex, ~std::uint64_t{0})));
}

TEST(TailBlockTableLoad, RefusesAFragmentOfAStreamAboveTheLimit) {
    EXPECT_TRUE(Load(With(kStreamId, kTableLimit)));
    EXPECT_THROW(Load(With(kStreamId, kTableLimit + 1)), InvalidParameterException);
}

TEST(TailBlockTableLoad, RefusesAFragmentOfAStreamAboveTheHighestIdWithAnyLimit) {
    constexpr std::uint64_t kNoLimit = ~std::uint64_t{0};
    EXPECT_TRUE(Load(With(kStreamId, 0xFFFFFF), kNoLimit));
    EXPECT_THROW(Load(With(kStreamId, 0x1000000), kNoLimit), InvalidParameterException);
}

TEST(TailBlockTableLoad, RefusesAFragmentInAMissingBlock) {
    EXPECT_TRUE(Load(With(kFragmentBlock, 0)));
    for (const std::uint64_t block : {std::uint64_t{1}, std::uint64_t{4}, ~std::uint64_t{0}}) {
        EXPECT_THROW(Load(With(kFragmentBlock, block)), InvalidParameterException);
    }
}

TEST(TailBlockTableLoad, RefusesAFragmentThatBeginsPastItsBlock) {
    EXPECT_TRUE(Load(With(kOffset, 65535)));
    EXPECT_THROW(Load(With(kOffset, 65536)), InvalidParameterException);
}

TEST(TailBlockTableLoad, RefusesAFragmentOfAWholePage) {
    EXPECT_TRUE(Load(With(kLength, 8191)));
    EXPECT_THROW(Load(With(kLength, 8192)), InvalidParameterException);
}

TEST(TailBlockTableLoad, RefusesASecondFragmentOfAStream) {
    EXPECT_THROW(Load(With(kSecondStreamId, 2)), FileDataCorruptException);
}

TEST(TailBlockTableLoad, RefusesAStreamTruncatedAnywhere) {
    const Bytes state = BytesOf(kState);
    const auto isInList = [](std::size_t size) {
        const std::size_t word = size / 8;
        return word == kFirstListCount || (word >= kListCount && word < kFragmentCount);
    };
    for (std::size_t size = 0; size < state.size(); ++size) {
        MemoryStream stream(Prefix(state, size));
        TailBlockTable table;
        if (isInList(size)) {
            EXPECT_THROW(LoadFrom(table, stream, kTableLimit), FileDataCorruptException) << size;
        } else {
            EXPECT_THROW(LoadFrom(table, stream, kTableLimit), FileIOException) << size;
        }
    }
}

TEST(TailBlockTableLoad, AllocatesNothingForIdsThatTheStreamClaimsButDoesNotHold) {
    MemoryStream stream(BytesOf(With(kListCount, std::uint64_t{1} << 28)), std::uint64_t{1} << 33);
    TailBlockTable table;
    const AllocationWatch watch;
    EXPECT_THROW(LoadFrom(table, stream, kTableLimit), FileDataCorruptException);
    EXPECT_LT(watch.Largest(), 65536U);
}

TEST(TailBlockTableLoad, AllocatesNothingForFragmentsThatTheStreamDoesNotHold) {
    MemoryStream stream(BytesOf(With(kFragmentCount, kDefaultStreamLimit)), ~std::uint64_t{0});
    TailBlockTable table;
    const AllocationWatch watch;
    EXPECT_THROW(LoadFrom(table, stream, kDefaultStreamLimit), FileIOException);
    EXPECT_LT(watch.Largest(), 65536U);
}

// ---- Wrong lists and offsets in a damaged file --------------------------------------------------

namespace {

// The second block's list names these two streams.
Words WithList(std::uint64_t first, std::uint64_t second, Words words = kState) {
    words[23] = first;
    words[24] = second;
    return words;
}

// Adds a fragment to the second block, after the others.
Words WithFragment(std::uint64_t streamId, std::uint64_t listIndex, Words words) {
    ++words[kFragmentCount];
    words.insert(words.end(), {streamId, 3, listIndex, 300, 10});
    return words;
}

}  // namespace

TEST(TailBlockTableLoad, RemovesAFragmentOfABlockThatListsTheWrongStreams) {
    for (const Words& words : {WithList(2, 5), WithList(5, 9), WithList(9, 2), WithList(5, 5)}) {
        TailBlockTable table;
        MemoryStream stream(BytesOf(words));
        ASSERT_TRUE(LoadFrom(table, stream, kTableLimit));
        table.Remove(5);
        EXPECT_EQ(table.FindFragment(5), nullptr);
        EXPECT_EQ(table.FindFragment(2)->offset, 0U);
        EXPECT_EQ(table.FindFragment(2)->listIndex, 0U);
        ASSERT_TRUE(table.Place(7, 3, 10));
        EXPECT_EQ(table.FindFragment(7)->offset, 200U);
    }
}

TEST(TailBlockTableLoad, LeavesAListedFragmentOfAnotherBlockAlone) {
    const Words inOtherBlock = With(kFragmentBlock, 0);
    for (const Words& words : {inOtherBlock, WithFragment(7, 1, inOtherBlock)}) {
        TailBlockTable table;
        MemoryStream stream(BytesOf(words));
        ASSERT_TRUE(LoadFrom(table, stream, kTableLimit));
        table.Remove(5);
        EXPECT_EQ(table.FindFragment(2)->blockId, 0U);
        EXPECT_EQ(table.FindFragment(2)->offset, 100U);
        EXPECT_EQ(table.FindFragment(2)->listIndex, 1U);
        if (const TailFragment* const moved = table.FindFragment(7)) {
            EXPECT_EQ(moved->offset, 200U);
            EXPECT_EQ(moved->listIndex, 0U);
        }
    }
}

// The block claims too many free bytes: its fragments lie at 100 to 300 and 400 to 500.
TEST(TailBlockTableLoad, PlacesATailOnlyWhereThereIsNoFragment) {
    struct {
        std::uint64_t offset, length;
        bool fits;
    } const cases[] = {
        {0, 100, true},  {0, 101, false}, {0, 150, false},   {99, 1, true},    {99, 2, false},
        {100, 1, false}, {299, 1, false}, {200, 300, false}, {300, 100, true}, {300, 101, false},
        {399, 1, true},  {400, 1, false}, {499, 1, false},   {500, 1, true},   {50, 2000, false},
    };
    for (const bool isListInOrder : {true, false}) {
        for (const auto& each : cases) {
            Words words = isListInOrder ? kState : WithList(2, 5);
            words[kFreeBytes] = kTailBlockSize - each.offset;
            words[kSecondStreamId + 3] = 400;
            TailBlockTable table;
            MemoryStream stream(BytesOf(words));
            ASSERT_TRUE(LoadFrom(table, stream, kTableLimit));
            EXPECT_EQ(table.Place(7, 3, each.length), each.fits)
                << each.offset << ' ' << each.length << ' ' << isListInOrder;
        }
    }
}

// The block claims that all its bytes are free, so after a removal it claims more than it has.
TEST(TailBlockTableLoad, GivesATailThatReachesPastItsBlockNoFollowingPage) {
    Words words = With(kFreeBytes, kTailBlockSize);
    words[kOffset] = kTailBlockSize - 1;
    words[kLength] = 200;
    TailBlockTable table;
    MemoryStream stream(BytesOf(words));
    ASSERT_TRUE(LoadFrom(table, stream, kTableLimit));
    table.Remove(5);
    ChildFileTail tail;
    ASSERT_TRUE(GetChildFileTail(tail, table, 2));
    EXPECT_EQ(tail.tailPage, 28U);
    EXPECT_EQ(tail.followingPage, 0U);
}

}  // namespace Quorvel::Testing
