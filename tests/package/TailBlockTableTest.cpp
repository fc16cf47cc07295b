#include "package/TailBlockTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "package/MemoryStream.h"
#include "quorvel/Exceptions.h"
#include "quorvel/IDataStreamSet.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;
using ::testing::ElementsAreArray;

using Words = std::vector<std::uint64_t>;

constexpr std::uint64_t kBlockLimit = 100;
constexpr TailBlockPageNumbers kBlockPages = {11, 12, 13, 14, 15, 16, 17, 18};
constexpr TailBlockPageNumbers kOtherPages = {29, 28, 27, 26, 25, 24, 23, 22};

// A table with a block over kBlockPages.
class TailBlockTableTest : public ::testing::Test {
protected:
    TailBlockTableTest() {
        table_.Reset(kBlockLimit);
        block_ = table_.AddBlock(kBlockPages);
    }

    // Offset and list index of a stream's fragment.
    std::pair<std::uint64_t, std::uint64_t> PlaceOf(std::uint64_t streamId) const {
        const TailFragment* const fragment = table_.FindFragment(streamId);
        return fragment ? std::pair(fragment->offset, fragment->listIndex)
                        : std::pair(kInvalidStreamId, kInvalidStreamId);
    }

    TailBlockTable table_;
    std::uint64_t block_;
};

using Place = std::pair<std::uint64_t, std::uint64_t>;

TailBlockTable Loaded(const Words& words) {
    TailBlockTable table;
    MemoryStream stream(BytesOf(words));
    EXPECT_TRUE(LoadFrom(table, stream, kBlockLimit));
    return table;
}

// One block with `freeBytes` in its record and an empty list, and one fragment, of stream 1.
TailBlockTable WithFragment(std::uint64_t freeBytes, std::uint64_t offset, std::uint64_t length) {
    return Loaded({1, 0, 11, 12, 13, 14, 15, 16, 17, 18, freeBytes, 0, 1, 1, 0, 0, offset, length});
}

}  // namespace

// ---- Blocks -------------------------------------------------------------------------------------

TEST(TailBlockTable, IsEmptyAtFirst) {
    const TailBlockTable table;
    EXPECT_EQ(table.FindBlock(0), nullptr);
    EXPECT_EQ(table.FindFragment(0), nullptr);
    EXPECT_EQ(table.FindBlockWithRoom(1), std::nullopt);
    EXPECT_EQ(table.StateSize(), 16U);
}

TEST_F(TailBlockTableTest, AddsBlocksUnderTheLowestFreeIds) {
    EXPECT_EQ(block_, 0U);
    EXPECT_EQ(table_.AddBlock(kOtherPages), 1U);
    EXPECT_EQ(table_.AddBlock(kBlockPages), 2U);
    const TailBlockRecord* const block = table_.FindBlock(1);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->blockId, 1U);
    EXPECT_EQ(block->pages, kOtherPages);
    EXPECT_EQ(block->freeBytes, 65536U);
    EXPECT_TRUE(block->streamIds.empty());
}

TEST_F(TailBlockTableTest, RefusesABlockWithAnInvalidPageNumber) {
    for (std::size_t index = 0; index < kTailBlockPages; ++index) {
        for (const std::uint64_t number : {0x0U, 0x9U, 0x100000U}) {
            TailBlockPageNumbers pages = kBlockPages;
            pages[index] = number;
            EXPECT_THROW(table_.AddBlock(pages), InvalidParameterException);
        }
    }
    EXPECT_EQ(table_.AddBlock({10, 0xFFFFF, 10, 10, 10, 10, 10, 10}), 1U);
}

TEST(TailBlockTable, HasBlocksUpToAnEighthOfItsLimit) {
    TailBlockTable table;
    table.Reset(23);
    for (std::uint64_t id = 0; id <= 2; ++id) {
        EXPECT_EQ(table.AddBlock(kBlockPages), id);
    }
    EXPECT_THROW(table.AddBlock(kBlockPages), InvalidParameterException);
    EXPECT_EQ(table.FindBlock(3), nullptr);
}

TEST(TailBlockTable, HasTwoBlocksUnderTheSmallestLimits) {
    for (const std::uint64_t limit : {0U, 1U, 7U, 8U}) {
        TailBlockTable table;
        table.Reset(limit);
        EXPECT_EQ(table.AddBlock(kBlockPages), 0U);
        EXPECT_EQ(table.AddBlock(kBlockPages), 1U);
        EXPECT_THROW(table.AddBlock(kBlockPages), InvalidParameterException);
    }
}

TEST_F(TailBlockTableTest, FindsTheFirstBlockThatHasRoom) {
    const std::uint64_t second = table_.AddBlock(kOtherPages);
    EXPECT_TRUE(table_.Place(1, block_, 8000));
    EXPECT_EQ(table_.FindBlockWithRoom(57536), block_);
    EXPECT_EQ(table_.FindBlockWithRoom(57537), second);
    EXPECT_EQ(table_.FindBlockWithRoom(65536), second);
    EXPECT_EQ(table_.FindBlockWithRoom(65537), std::nullopt);
}

TEST_F(TailBlockTableTest, HasTheHighestLimitAfterAResetWithoutOne) {
    table_.Reset(8);
    table_.Reset();
    for (std::uint64_t block = 0; block < 3; ++block) {
        EXPECT_EQ(table_.AddBlock(kBlockPages), block);
    }
    EXPECT_TRUE(table_.Place(0xFFFFFF, 2, 10));
}

TEST_F(TailBlockTableTest, ForgetsEverythingAtReset) {
    EXPECT_TRUE(table_.Place(1, block_, 100));
    table_.Reset(8);
    EXPECT_EQ(table_.FindBlock(block_), nullptr);
    EXPECT_EQ(table_.FindFragment(1), nullptr);
    EXPECT_EQ(table_.StateSize(), 16U);
    EXPECT_EQ(table_.AddBlock(kBlockPages), 0U);
    EXPECT_THROW(static_cast<void>(table_.Place(9, 0, 100)), InvalidParameterException);
}

// ---- Placing ------------------------------------------------------------------------------------

TEST_F(TailBlockTableTest, PacksTailsFromTheStartOfABlockUpwards) {
    EXPECT_TRUE(table_.Place(7, block_, 8000));
    EXPECT_TRUE(table_.Place(3, block_, 500));
    EXPECT_TRUE(table_.Place(5, block_, 1));
    EXPECT_EQ(PlaceOf(7), Place(0, 0));
    EXPECT_EQ(PlaceOf(3), Place(8000, 1));
    EXPECT_EQ(PlaceOf(5), Place(8500, 2));
    const TailFragment* const fragment = table_.FindFragment(3);
    EXPECT_EQ(fragment->streamId, 3U);
    EXPECT_EQ(fragment->blockId, block_);
    EXPECT_EQ(fragment->length, 500U);
    EXPECT_EQ(table_.FindBlock(block_)->freeBytes, 65536U - 8501);
    EXPECT_EQ(table_.FindBlock(block_)->streamIds, Words({7, 3, 5}));
}

TEST_F(TailBlockTableTest, FillsABlockToItsLastByte) {
    for (std::uint64_t id = 0; id < 8; ++id) {
        EXPECT_TRUE(table_.Place(id, block_, 8191));
    }
    EXPECT_FALSE(table_.Place(8, block_, 9));
    EXPECT_TRUE(table_.Place(8, block_, 8));
    EXPECT_EQ(table_.FindBlock(block_)->freeBytes, 0U);
    EXPECT_EQ(table_.FindBlockWithRoom(1), std::nullopt);
}

TEST_F(TailBlockTableTest, RefusesToPlaceWithoutChangingAnything) {
    EXPECT_TRUE(table_.Place(1, block_, 8000));
    const Bytes before = Saved(table_);
    EXPECT_FALSE(table_.Place(2, block_ + 1, 100));  // no such block
    EXPECT_FALSE(table_.Place(2, block_, 57537));    // no room
    EXPECT_FALSE(table_.Place(1, block_, 100));      // has a tail
    EXPECT_THROW(static_cast<void>(table_.Place(kBlockLimit + 1, block_, 100)),
                 InvalidParameterException);
    EXPECT_THROW(static_cast<void>(table_.Place(2, block_, 8192)), InvalidParameterException);
    EXPECT_TRUE(Saved(table_) == before);
    EXPECT_TRUE(table_.Place(kBlockLimit, block_, 8191));
}

TEST(TailBlockTable, RefusesToPlaceATailThatBeginsInsideAnother) {
    TailBlockTable table = WithFragment(65000, 500, 37);  // the next would begin at 536
    EXPECT_FALSE(table.Place(2, 0, 1));
    table = WithFragment(65000, 500, 36);
    EXPECT_TRUE(table.Place(2, 0, 1));
    EXPECT_EQ(table.FindFragment(2)->offset, 536U);
}

TEST(TailBlockTable, RefusesToPlaceATailInsideWhichAnotherBegins) {
    TailBlockTable table = WithFragment(65036, 600, 100);  // the next would begin at 500
    EXPECT_FALSE(table.Place(2, 0, 101));
    EXPECT_TRUE(table.Place(2, 0, 100));
}

TEST(TailBlockTable, RefusesToPlaceATailWhereAnEmptyOneBegins) {
    TailBlockTable table = WithFragment(65036, 500, 0);
    EXPECT_FALSE(table.Place(2, 0, 1));
    table = WithFragment(65036, 499, 0);
    EXPECT_TRUE(table.Place(2, 0, 1));
}

TEST(TailBlockTable, ChecksOverlapsOnlyWithTailsOfTheSameBlock) {
    TailBlockTable table = WithFragment(65536, 0, 100);
    EXPECT_FALSE(table.Place(2, 0, 50));
    EXPECT_TRUE(table.Place(2, table.AddBlock(kOtherPages), 50));
}

// ---- Removing -----------------------------------------------------------------------------------

TEST_F(TailBlockTableTest, MovesTailsAfterARemovedOneDown) {
    EXPECT_TRUE(table_.Place(1, block_, 100));
    EXPECT_TRUE(table_.Place(2, block_, 200));
    table_.Remove(1);
    EXPECT_EQ(table_.FindFragment(1), nullptr);
    EXPECT_EQ(PlaceOf(2), Place(0, 0));
    EXPECT_EQ(table_.FindFragment(2)->length, 200U);
    EXPECT_EQ(table_.FindBlock(block_)->freeBytes, 65536U - 200);
    EXPECT_EQ(table_.FindBlock(block_)->streamIds, Words({2}));
}

TEST_F(TailBlockTableTest, LeavesTailsBeforeARemovedOneAlone) {
    EXPECT_TRUE(table_.Place(4, block_, 100));
    EXPECT_TRUE(table_.Place(3, block_, 200));
    EXPECT_TRUE(table_.Place(2, block_, 300));
    EXPECT_TRUE(table_.Place(1, block_, 400));
    table_.Remove(3);
    EXPECT_EQ(PlaceOf(4), Place(0, 0));
    EXPECT_EQ(PlaceOf(2), Place(100, 1));
    EXPECT_EQ(PlaceOf(1), Place(400, 2));
    EXPECT_EQ(table_.FindBlock(block_)->streamIds, Words({4, 2, 1}));
    table_.Remove(1);
    EXPECT_EQ(PlaceOf(2), Place(100, 1));
    EXPECT_TRUE(table_.Place(1, block_, 1));
    EXPECT_EQ(PlaceOf(1), Place(400, 2));
}

TEST_F(TailBlockTableTest, LeavesOtherBlocksAloneWhenATailIsRemoved) {
    const std::uint64_t second = table_.AddBlock(kOtherPages);
    EXPECT_TRUE(table_.Place(1, block_, 100));
    EXPECT_TRUE(table_.Place(2, second, 100));
    EXPECT_TRUE(table_.Place(3, second, 100));
    table_.Remove(1);
    EXPECT_EQ(PlaceOf(2), Place(0, 0));
    EXPECT_EQ(PlaceOf(3), Place(100, 1));
    EXPECT_EQ(table_.FindBlock(second)->freeBytes, 65536U - 200);
}

TEST_F(TailBlockTableTest, KeepsABlockThatBecameEmpty) {
    EXPECT_TRUE(table_.Place(1, block_, 100));
    table_.Remove(1);
    ASSERT_NE(table_.FindBlock(block_), nullptr);
    EXPECT_EQ(table_.FindBlock(block_)->freeBytes, 65536U);
    EXPECT_EQ(table_.FindBlockWithRoom(65536), block_);
    EXPECT_EQ(table_.StateSize(), 16U + 80 + 8);
}

TEST(TailBlockTable, MovesUnlistedTailsDownToo) {
    TailBlockTable table = Loaded({1, 0, 11, 12, 13, 14,  15, 16, 17, 18,  65000, 1, 9,  // lists 9
                                   2, 1, 0,  0,  0,  100, 2,  0,  5,  100, 200});
    table.Remove(1);
    EXPECT_EQ(table.FindFragment(2)->offset, 0U);
    EXPECT_EQ(table.FindFragment(2)->listIndex, 4U);
    EXPECT_EQ(table.FindBlock(0)->streamIds, Words({9}));
    EXPECT_EQ(table.FindBlock(0)->freeBytes, 65100U);
}

// ---- Saving -------------------------------------------------------------------------------------

TEST(TailBlockTable, IsSavedAsTwoCountsOfZeroWhenItIsEmpty) {
    EXPECT_THAT(Saved(TailBlockTable()), ElementsAreArray(Bytes(16, 0)));
}

TEST(TailBlockTable, IsSavedByteForByte) {
    TailBlockTable table;
    table.AddBlock({0x000A0B0C, 0x0A, 0x0FFFFF, 13, 14, 15, 16, 17});
    table.AddBlock({29, 28, 27, 26, 25, 24, 23, 22});
    ASSERT_TRUE(table.Place(0x010203, 0, 0x1F1E));
    ASSERT_TRUE(table.Place(2, 1, 1));
    ASSERT_TRUE(table.Place(1, 0, 0x0102));

    const Bytes expected = {
        2,    0,    0,    0, 0, 0, 0, 0,  // two blocks
        0,    0,    0,    0, 0, 0, 0, 0,  // id
        0x0C, 0x0B, 0x0A, 0, 0, 0, 0, 0,  // pages
        0x0A, 0,    0,    0, 0, 0, 0, 0,  //
        0xFF, 0xFF, 0x0F, 0, 0, 0, 0, 0,  //
        13,   0,    0,    0, 0, 0, 0, 0,  //
        14,   0,    0,    0, 0, 0, 0, 0,  //
        15,   0,    0,    0, 0, 0, 0, 0,  //
        16,   0,    0,    0, 0, 0, 0, 0,  //
        17,   0,    0,    0, 0, 0, 0, 0,  //
        0xE0, 0xDF, 0,    0, 0, 0, 0, 0,  // 0x10000 - 0x1F1E - 0x0102 bytes free
        2,    0,    0,    0, 0, 0, 0, 0,  // two streams, in the order of placing
        0x03, 0x02, 0x01, 0, 0, 0, 0, 0,  //
        1,    0,    0,    0, 0, 0, 0, 0,  //
        1,    0,    0,    0, 0, 0, 0, 0,  // the second block's id
        29,   0,    0,    0, 0, 0, 0, 0,  // pages
        28,   0,    0,    0, 0, 0, 0, 0,  //
        27,   0,    0,    0, 0, 0, 0, 0,  //
        26,   0,    0,    0, 0, 0, 0, 0,  //
        25,   0,    0,    0, 0, 0, 0, 0,  //
        24,   0,    0,    0, 0, 0, 0, 0,  //
        23,   0,    0,    0, 0, 0, 0, 0,  //
        22,   0,    0,    0, 0, 0, 0, 0,  //
        0xFF, 0xFF, 0,    0, 0, 0, 0, 0,  // 65535 bytes free
        1,    0,    0,    0, 0, 0, 0, 0,  // one stream
        2,    0,    0,    0, 0, 0, 0, 0,  //
        3,    0,    0,    0, 0, 0, 0, 0,  // three fragments, in ascending order of streams
        1,    0,    0,    0, 0, 0, 0, 0,  // stream
        0,    0,    0,    0, 0, 0, 0, 0,  // block
        1,    0,    0,    0, 0, 0, 0, 0,  // index
        0x1E, 0x1F, 0,    0, 0, 0, 0, 0,  // offset
        0x02, 0x01, 0,    0, 0, 0, 0, 0,  // length
        2,    0,    0,    0, 0, 0, 0, 0,  //
        1,    0,    0,    0, 0, 0, 0, 0,  //
        0,    0,    0,    0, 0, 0, 0, 0,  //
        0,    0,    0,    0, 0, 0, 0, 0,  //
        1,    0,    0,    0, 0, 0, 0, 0,  //
        0x03, 0x02, 0x01, 0, 0, 0, 0, 0,  //
        0,    0,    0,    0, 0, 0, 0, 0,  //
        0,    0,    0,    0, 0, 0, 0, 0,  //
        0,    0,    0,    0, 0, 0, 0, 0,  //
        0x1E, 0x1F, 0,    0, 0, 0, 0, 0,  //
    };
    EXPECT_EQ(table.StateSize(), expected.size());
    EXPECT_THAT(Saved(table), ElementsAreArray(expected));
}

TEST_F(TailBlockTableTest, ReportsTheSizeOfItsState) {
    EXPECT_EQ(table_.StateSize(), 16U + 88);
    EXPECT_TRUE(table_.Place(1, block_, 100));
    EXPECT_EQ(table_.StateSize(), 16U + 88 + 8 + 40);
    EXPECT_TRUE(table_.Place(2, table_.AddBlock(kOtherPages), 100));
    EXPECT_EQ(table_.StateSize(), 16U + 2 * (88 + 8 + 40));
}

TEST_F(TailBlockTableTest, CannotBeSavedToAStreamThatIsTooShort) {
    EXPECT_TRUE(table_.Place(1, block_, 100));
    for (std::size_t size = 0; size < table_.StateSize(); ++size) {
        MemoryStream stream(Bytes(size, 0));
        EXPECT_THROW(table_.Save(stream), FileIOException) << size;
    }
}

TEST_F(TailBlockTableTest, SwapsEverything) {
    EXPECT_TRUE(table_.Place(1, block_, 100));
    const Bytes mine = Saved(table_);
    TailBlockTable other;
    other.Reset(8);
    table_.Swap(other);
    EXPECT_TRUE(Saved(other) == mine);
    EXPECT_EQ(table_.StateSize(), 16U);
    EXPECT_EQ(table_.AddBlock(kBlockPages), 0U);
    EXPECT_THROW(static_cast<void>(table_.Place(9, 0, 1)), InvalidParameterException);
    EXPECT_TRUE(other.Place(9, block_, 1));
    EXPECT_EQ(other.AddBlock(kBlockPages), 1U);
}

// ---- Tails as seekers see them ------------------------------------------------------------------

TEST_F(TailBlockTableTest, DescribesAMissingTailAsAllZero) {
    ChildFileTail tail = {1, 2, 3, 4};
    EXPECT_TRUE(GetChildFileTail(tail, table_, 1));
    EXPECT_EQ(tail.tailPage, 0U);
    EXPECT_EQ(tail.followingPage, 0U);
    EXPECT_EQ(tail.tailOffset, 0U);
    EXPECT_EQ(tail.tailLength, 0U);
}

TEST_F(TailBlockTableTest, DescribesATailByItsPageAndTheFollowingOne) {
    // Offsets 0, 5000 and 10000 of the block: inside page 11, across its end, inside page 12.
    for (std::uint64_t id = 0; id < 3; ++id) {
        EXPECT_TRUE(table_.Place(id, block_, 5000));
    }
    ChildFileTail tail;
    EXPECT_TRUE(GetChildFileTail(tail, table_, 0));
    EXPECT_EQ(tail.tailPage, 11U);
    EXPECT_EQ(tail.followingPage, 0U);
    EXPECT_EQ(tail.tailOffset, 0U);
    EXPECT_EQ(tail.tailLength, 5000U);
    EXPECT_TRUE(GetChildFileTail(tail, table_, 1));
    EXPECT_EQ(tail.tailPage, 11U);
    EXPECT_EQ(tail.followingPage, 12U);
    EXPECT_EQ(tail.tailOffset, 5000U);
    EXPECT_TRUE(GetChildFileTail(tail, table_, 2));
    EXPECT_EQ(tail.tailPage, 12U);
    EXPECT_EQ(tail.followingPage, 0U);
    EXPECT_EQ(tail.tailOffset, 10000U - 8192);
}

TEST_F(TailBlockTableTest, DescribesATailThatEndsWithItsPageWithoutAFollowingOne) {
    EXPECT_TRUE(table_.Place(1, block_, 8000));
    EXPECT_TRUE(table_.Place(2, block_, 192));
    EXPECT_TRUE(table_.Place(3, block_, 8191));
    EXPECT_TRUE(table_.Place(4, block_, 2));
    ChildFileTail tail;
    EXPECT_TRUE(GetChildFileTail(tail, table_, 2));
    EXPECT_EQ(tail.tailPage, 11U);
    EXPECT_EQ(tail.followingPage, 0U);
    EXPECT_TRUE(GetChildFileTail(tail, table_, 4));  // one byte on each side of the end
    EXPECT_EQ(tail.tailPage, 12U);
    EXPECT_EQ(tail.followingPage, 13U);
    EXPECT_EQ(tail.tailOffset, 8191U);
}

TEST(TailBlockTable, DescribesATailInEachPageOfItsBlock) {
    for (std::uint64_t slot = 0; slot < kTailBlockPages; ++slot) {
        ChildFileTail tail;
        EXPECT_TRUE(GetChildFileTail(tail, WithFragment(0, slot * 8192 + 100, 8092), 1));
        EXPECT_EQ(tail.tailPage, kBlockPages[slot]);
        EXPECT_EQ(tail.followingPage, 0U);
        EXPECT_EQ(tail.tailOffset, 100U);
        EXPECT_EQ(tail.tailLength, 8092U);
    }
}

TEST(TailBlockTable, RefusesToDescribeATailThatReachesIntoTheFreeBytesOfItsBlock) {
    ChildFileTail tail;
    EXPECT_TRUE(GetChildFileTail(tail, WithFragment(65536 - 300, 100, 200), 1));
    EXPECT_THROW(GetChildFileTail(tail, WithFragment(65536 - 299, 100, 200), 1),
                 FileDataCorruptException);
    EXPECT_THROW(GetChildFileTail(tail, WithFragment(65536, 0, 1), 1), FileDataCorruptException);
}

TEST(TailBlockTable, RefusesToDescribeATailThatReachesPastItsBlock) {
    ChildFileTail tail;
    EXPECT_TRUE(GetChildFileTail(tail, WithFragment(0, 65535, 1), 1));
    EXPECT_THROW(GetChildFileTail(tail, WithFragment(0, 65535, 2), 1), FileDataCorruptException);
}

}  // namespace Quorvel::Testing
