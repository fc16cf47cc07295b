#include "package/StreamDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "package/AllocationWatch.h"
#include "package/MemoryStream.h"
#include "pagestore/PageGeometry.h"
#include "quorvel/Exceptions.h"
#include "quorvel/IDataStreamSet.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;
using ::testing::ElementsAreArray;

using Words = std::vector<std::uint64_t>;

constexpr std::uint64_t kStreamLimit = 10;

// Two records as they are stored, with ids 0 and 2.
const Bytes kTwoRecords = {
    2,    0,    0,    0,    0,    0,    0,    0,     // two streams
    0,    0,    0,    0,    0,    0,    0,    0,     // id
    0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  // size
    0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11,  // first page
    0x0C, 0x0B, 0x0A, 0,    0,    0,    0,    0,     // whole pages
    2,    0,    0,    0,    0,    0,    0,    0,     //
    5,    0,    0,    0,    0,    0,    0,    0,     //
    0,    0,    0,    0,    0,    0,    0,    0,     //
    0,    0,    0,    0,    0,    0,    0,    0,     //
};
constexpr std::uint64_t kFirstSize = 0x0102030405060708;
constexpr std::uint64_t kFirstPage = 0x1112131415161718;
constexpr std::uint64_t kFirstPageCount = 0x0A0B0C;

void Load(StreamDirectory& directory, const Bytes& state, std::uint64_t limit = kStreamLimit) {
    MemoryStream stream(state);
    LoadFrom(directory, stream, limit);
}

// Adds `count` streams of one byte, under the lowest free ids.
void Fill(StreamDirectory& directory, std::uint64_t count) {
    for (std::uint64_t index = 0; index < count; ++index) {
        const std::uint64_t id = directory.AllocateId();
        directory.Store(id, {id, 1, 0, 0});
    }
}

Words Ids(const StreamDirectory& directory) {
    Words ids;
    for (std::uint64_t index = 0; index < directory.Count(); ++index) {
        ids.push_back(directory.IdAt(index));
    }
    return ids;
}

}  // namespace

TEST(StreamDirectory, IsEmptyAtFirst) {
    const StreamDirectory directory;
    EXPECT_EQ(directory.Count(), 0U);
    EXPECT_EQ(directory.TotalBytes(), 0U);
    EXPECT_EQ(directory.StateSize(), 8U);
    EXPECT_EQ(directory.Find(0), nullptr);
    EXPECT_EQ(directory.IdAt(0), kInvalidStreamId);
}

TEST(StreamDirectory, AllocatesTheLowestFreeIdFirst) {
    StreamDirectory directory;
    Fill(directory, 4);
    EXPECT_TRUE(directory.Remove(2));
    EXPECT_TRUE(directory.Remove(1));
    EXPECT_EQ(directory.AllocateId(), 1U);
    EXPECT_EQ(directory.AllocateId(), 2U);
    EXPECT_EQ(directory.AllocateId(), 4U);
}

TEST(StreamDirectory, ListsIdsInAscendingOrder) {
    StreamDirectory directory;
    Load(directory, BytesOf({3, 7, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0}));
    EXPECT_EQ(Ids(directory), Words({1, 4, 7}));
    EXPECT_EQ(directory.IdAt(3), kInvalidStreamId);
}

TEST(StreamDirectory, FreesAnIdWithoutARecord) {
    StreamDirectory directory;
    directory.FreeId(directory.AllocateId());
    EXPECT_EQ(directory.Count(), 0U);
    EXPECT_EQ(directory.AllocateId(), 0U);
}

TEST(StreamDirectory, StoresARecordUnderTheGivenIdNotTheOneInTheRecord) {
    StreamDirectory directory;
    const std::uint64_t id = directory.AllocateId();
    directory.Store(id, {77, 100, 20, 3});
    const ChildFileExtent* const record = directory.Find(id);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->streamId, id);
    EXPECT_EQ(record->byteSize, 100U);
    EXPECT_EQ(record->firstPage, 20U);
    EXPECT_EQ(record->wholePageCount, 3U);
}

TEST(StreamDirectory, CountsTheBytesOfAllStreams) {
    StreamDirectory directory;
    Fill(directory, 3);
    EXPECT_EQ(directory.TotalBytes(), 3U);
    directory.Store(1, {1, 1000, 0, 0});
    EXPECT_EQ(directory.TotalBytes(), 1002U);
    EXPECT_TRUE(directory.Remove(1));
    EXPECT_EQ(directory.TotalBytes(), 2U);
}

TEST(StreamDirectory, ReplacesARecordInItsPlace) {
    StreamDirectory directory;
    Fill(directory, 1);
    const ChildFileExtent* const record = directory.Find(0);
    Fill(directory, 100);
    directory.Store(0, {0, 5, 6, 7});
    EXPECT_EQ(directory.Find(0), record);
    EXPECT_EQ(record->byteSize, 5U);
}

TEST(StreamDirectory, StoresAnIdAtItsLimitAndRefusesOneAbove) {
    StreamDirectory directory;
    directory.Reset(3);
    for (std::uint64_t id = 0; id <= 4; ++id) {
        EXPECT_EQ(directory.AllocateId(), id);
    }
    directory.Store(3, {3, 1, 0, 0});
    EXPECT_NE(directory.Find(3), nullptr);
    EXPECT_THROW(directory.Store(4, {4, 1, 0, 0}), InvalidParameterException);
    EXPECT_EQ(directory.Find(4), nullptr);
    EXPECT_EQ(directory.TotalBytes(), 1U);
}

TEST(StreamDirectory, StoresTheLargestNumberOfWholePagesAndRefusesOneMore) {
    StreamDirectory directory;
    const std::uint64_t id = directory.AllocateId();
    directory.Store(id, {id, 1, 10, kPageCountLimit});
    EXPECT_EQ(directory.Find(id)->wholePageCount, 0xFFFF6U);
    EXPECT_THROW(directory.Store(id, {id, 1, 10, kPageCountLimit + 1}), InvalidParameterException);
    EXPECT_EQ(directory.Find(id)->wholePageCount, 0xFFFF6U);
}

TEST(StreamDirectory, RefusesARecordForAnIdThatIsNotAllocated) {
    StreamDirectory directory;
    EXPECT_THROW(directory.Store(0, {0, 1, 0, 0}), InvalidParameterException);
    EXPECT_EQ(directory.Find(0), nullptr);
    EXPECT_EQ(directory.TotalBytes(), 0U);
}

TEST(StreamDirectory, RemovesOnlyWhatItHas) {
    StreamDirectory directory;
    Fill(directory, 2);
    EXPECT_FALSE(directory.Remove(2));
    EXPECT_FALSE(directory.Remove(kInvalidStreamId));
    EXPECT_TRUE(directory.Remove(0));
    EXPECT_FALSE(directory.Remove(0));
    EXPECT_EQ(directory.Find(0), nullptr);
    EXPECT_EQ(Ids(directory), Words({1}));
}

TEST(StreamDirectory, ForgetsEverythingButItsNewLimitAtReset) {
    StreamDirectory directory;
    Fill(directory, 3);
    directory.Reset(1);
    EXPECT_EQ(directory.Count(), 0U);
    EXPECT_EQ(directory.TotalBytes(), 0U);
    EXPECT_EQ(directory.Find(0), nullptr);
    Fill(directory, 2);
    EXPECT_EQ(directory.AllocateId(), 2U);
    EXPECT_THROW(directory.Store(2, {2, 1, 0, 0}), InvalidParameterException);
}

TEST(StreamDirectory, HasALimitOfSixteenMillionIdsByDefault) {
    EXPECT_EQ(kDefaultStreamLimit, 16777215U);
    StreamDirectory directory;
    directory.Reset(3);
    directory.Reset();
    Load(directory, BytesOf({1, 0xFFFFFF, 9, 0, 0}), kDefaultStreamLimit);
    EXPECT_EQ(directory.Find(0xFFFFFF)->byteSize, 9U);
}

TEST(StreamDirectory, IsSavedByteForByte) {
    StreamDirectory directory;
    Fill(directory, 3);
    EXPECT_TRUE(directory.Remove(1));
    directory.Store(0, {0, kFirstSize, kFirstPage, kFirstPageCount});
    directory.Store(2, {2, 5, 0, 0});
    EXPECT_EQ(directory.StateSize(), 72U);
    EXPECT_THAT(Saved(directory), ElementsAreArray(kTwoRecords));
}

TEST(StreamDirectory, IsSavedAsACountOfZeroWhenItIsEmpty) {
    EXPECT_THAT(Saved(StreamDirectory()), ElementsAreArray(Bytes(8, 0)));
}

TEST(StreamDirectory, IsLoadedAsItWasSaved) {
    StreamDirectory directory;
    Load(directory, kTwoRecords);
    EXPECT_EQ(Ids(directory), Words({0, 2}));
    EXPECT_EQ(directory.TotalBytes(), kFirstSize + 5);
    EXPECT_EQ(directory.Find(0)->byteSize, kFirstSize);
    EXPECT_EQ(directory.Find(0)->firstPage, kFirstPage);
    EXPECT_EQ(directory.Find(0)->wholePageCount, kFirstPageCount);
    EXPECT_EQ(directory.AllocateId(), 1U);
    directory.FreeId(1);
    EXPECT_THAT(Saved(directory), ElementsAreArray(kTwoRecords));
}

TEST(StreamDirectory, ReplacesItsContentsWhenLoaded) {
    StreamDirectory directory;
    Fill(directory, 7);
    Load(directory, BytesOf({1, 3, 20, 0, 0}));
    EXPECT_EQ(Ids(directory), Words({3}));
    EXPECT_EQ(directory.Find(0), nullptr);
    EXPECT_EQ(directory.TotalBytes(), 20U);
}

TEST(StreamDirectory, KeepsTheLimitItIsLoadedWith) {
    StreamDirectory directory;
    Load(directory, BytesOf({1, 1, 0, 0, 0}), 1);
    EXPECT_EQ(directory.AllocateId(), 0U);
    EXPECT_EQ(directory.AllocateId(), 2U);
    EXPECT_THROW(directory.Store(2, {2, 1, 0, 0}), InvalidParameterException);
}

TEST(StreamDirectory, LoadsAsManyRecordsAsItsLimitAndRefusesOneMore) {
    const Bytes three = BytesOf({3, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0});
    StreamDirectory directory;
    Load(directory, three, 3);
    EXPECT_EQ(directory.Count(), 3U);
    MemoryStream stream(three);
    EXPECT_THROW(LoadFrom(directory, stream, 2), FileDataCorruptException);
}

TEST(StreamDirectory, RefusesToLoadADuplicateId) {
    MemoryStream stream(BytesOf({2, 4, 0, 0, 0, 4, 0, 0, 0}));
    EXPECT_THROW(LoadFrom(StreamDirectory(), stream, kStreamLimit), FileDataCorruptException);
}

TEST(StreamDirectory, RefusesToLoadAnIdAboveTheHighestWithAnyLimit) {
    for (const std::uint64_t id : {std::uint64_t{0x1000000}, kInvalidStreamId}) {
        MemoryStream stream(BytesOf({1, id, 0, 0, 0}));
        EXPECT_THROW(LoadFrom(StreamDirectory(), stream, ~std::uint64_t{0}),
                     FileDataCorruptException);
    }
}

TEST(StreamDirectory, LoadsAnIdAtItsLimitAndRefusesOneAbove) {
    StreamDirectory directory;
    Load(directory, BytesOf({1, kStreamLimit, 0, 0, 0}));
    EXPECT_NE(directory.Find(kStreamLimit), nullptr);
    MemoryStream stream(BytesOf({1, kStreamLimit + 1, 0, 0, 0}));
    EXPECT_THROW(LoadFrom(directory, stream, kStreamLimit), InvalidParameterException);
}

TEST(StreamDirectory, RefusesToLoadARecordOfTooManyWholePages) {
    StreamDirectory directory;
    Load(directory, BytesOf({1, 0, 0, 10, 0xFFFF6}));
    MemoryStream stream(BytesOf({1, 0, 0, 10, 0xFFFF7}));
    EXPECT_THROW(LoadFrom(directory, stream, kStreamLimit), InvalidParameterException);
}

TEST(StreamDirectory, RefusesToLoadFromATruncatedStream) {
    for (std::size_t size = 0; size < kTwoRecords.size(); ++size) {
        MemoryStream stream(Prefix(kTwoRecords, size));
        EXPECT_THROW(LoadFrom(StreamDirectory(), stream, kStreamLimit), FileIOException) << size;
    }
}

TEST(StreamDirectory, AllocatesNothingForRecordsThatTheStreamDoesNotHold) {
    MemoryStream stream(BytesOf({kDefaultStreamLimit, 0, 0, 0, 0}), ~std::uint64_t{0});
    StreamDirectory directory;
    const AllocationWatch watch;
    EXPECT_THROW(LoadFrom(directory, stream, kDefaultStreamLimit), FileIOException);
    EXPECT_LT(watch.Largest(), 4096U);
}

TEST(StreamDirectory, CannotBeSavedToAStreamThatIsTooShort) {
    StreamDirectory directory;
    Fill(directory, 2);
    for (std::size_t size = 0; size < directory.StateSize(); ++size) {
        MemoryStream stream(Bytes(size, 0));
        EXPECT_THROW(directory.Save(stream), FileIOException) << size;
    }
}

TEST(StreamDirectory, SwapsEverything) {
    StreamDirectory one;
    Load(one, kTwoRecords, 2);
    StreamDirectory other;
    Fill(other, 1);
    one.Swap(other);

    EXPECT_EQ(Ids(one), Words({0}));
    EXPECT_EQ(one.TotalBytes(), 1U);
    Fill(one, 10);
    EXPECT_THAT(Saved(other), ElementsAreArray(kTwoRecords));
    EXPECT_EQ(other.TotalBytes(), kFirstSize + 5);
    EXPECT_EQ(other.AllocateId(), 1U);
    EXPECT_EQ(other.AllocateId(), 3U);
    EXPECT_THROW(other.Store(3, {3, 1, 0, 0}), InvalidParameterException);
}

}  // namespace Quorvel::Testing
