#include "pagestore/PagedFileStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <limits>
#include <type_traits>
#include <utility>

#include "pagestore/Fakes.h"
#include "quorvel/Exceptions.h"
#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Three pages out of order, each with its own range of data: 1000 bytes, then 8092, then 500.
constexpr ListSeeker::Entry kFirst = {12, {7192, 8192}};
constexpr ListSeeker::Entry kSecond = {10, {100, 8192}};
constexpr ListSeeker::Entry kThird = {13, {16, 516}};
constexpr std::uint64_t kSize = 9592;

class PagedFileStreamTest : public ::testing::Test {
protected:
    PagedFileStreamTest() {
        WriteFile(path_, file_);
        OpenCache(4);
        OpenStream({kFirst, kSecond, kThird});
    }

    // Starts again with an empty cache of the given capacity. The test must open a stream next.
    void OpenCache(std::uint64_t capacity) {
        stream_.Reset();
        cache_.Open(path_.c_str(), capacity);
    }

    void OpenStream(std::initializer_list<ListSeeker::Entry> entries) {
        seeker_ = new ListSeeker(entries);
        stream_ = new PagedFileStream(&cache_, seeker_);
        content_.clear();
        for (const ListSeeker::Entry& entry : entries) {
            const Bytes part = Slice(file_, FileOffset(entry.page) + entry.range.start,
                                     entry.range.end - entry.range.start);
            content_.insert(content_.end(), part.begin(), part.end());
        }
    }

    // Up to size bytes from the stream's position.
    Bytes Read(std::uint64_t size) {
        Bytes bytes(size, 0xEE);
        const std::uint64_t count = stream_->Read(bytes.data(), size);
        EXPECT_LE(count, size);
        bytes.resize(count);
        return bytes;
    }

    Bytes ReadAll() {
        EXPECT_TRUE(stream_->Seek(kSeekFromStart, 0));
        return Read(content_.size() + 1);
    }

    // The number of further pages that the cache can pin.
    int FreePins() {
        Numbers pinned;
        for (std::uint64_t page = 14; page < 20 && cache_.GetPageForRead(page); ++page) {
            pinned.push_back(page);
        }
        for (const std::uint64_t page : pinned) {
            cache_.ReleasePageForRead(page);
        }
        return static_cast<int>(pinned.size());
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.File("pages");
    const Bytes file_ = PatternBytes(10 * kPageSize);
    FilePageCache cache_{directory_.File("empty").c_str(), 1};
    Util::RefPtr<ListSeeker> seeker_;
    Util::RefPtr<PagedFileStream> stream_;
    Bytes content_;  // expected content of the stream
};

}  // namespace

// ---- Construction -------------------------------------------------------------------------------

TEST_F(PagedFileStreamTest, StartsAtPositionZeroWithTheSizeOfItsSeeker) {
    EXPECT_EQ(stream_->GetPosition(), 0u);
    EXPECT_EQ(stream_->GetSize(), kSize);
    EXPECT_EQ(seeker_->positionsAsked, 1);
    EXPECT_EQ(FreePins(), 4);
}

TEST_F(PagedFileStreamTest, CannotBeConstructedWithoutASeeker) {
    EXPECT_THROW(Util::RefPtr<IDataStream>(new PagedFileStream(&cache_, {})),
                 InvalidParameterException);
}

TEST_F(PagedFileStreamTest, CannotBeConstructedOverASeekerWithoutAPositionZero) {
    const Util::RefPtr<ListSeeker> seeker(new ListSeeker({kFirst}));
    seeker->placesPositions = false;
    EXPECT_THROW(Util::RefPtr<IDataStream>(new PagedFileStream(&cache_, seeker)),
                 InvalidParameterException);
    EXPECT_EQ(seeker->AddRef(), 2u);
    seeker->Release();
}

TEST_F(PagedFileStreamTest, HoldsItsSeekerUntilItDies) {
    EXPECT_EQ(seeker_->AddRef(), 3u);
    seeker_->Release();
    stream_.Reset();
    EXPECT_EQ(seeker_->AddRef(), 2u);
    seeker_->Release();
}

TEST_F(PagedFileStreamTest, UnpinsItsPagesWhenItDies) {
    Read(1);
    EXPECT_EQ(FreePins(), 3);
    stream_.Reset();
    EXPECT_EQ(FreePins(), 4);
}

TEST_F(PagedFileStreamTest, OverNoPagesReadsAndWritesNothing) {
    OpenStream({});
    seeker_->byteSize = 77;
    std::uint8_t byte = 5;
    EXPECT_EQ(stream_->Read(&byte, 1), 0u);
    EXPECT_EQ(stream_->Write(&byte, 1), 0u);
    EXPECT_EQ(stream_->GetSize(), 77u);
    EXPECT_EQ(byte, 5);
    EXPECT_EQ(FreePins(), 4);
}

// ---- Seeking ------------------------------------------------------------------------------------

TEST_F(PagedFileStreamTest, SeeksFromTheStartTheEndAndTheCurrentPosition) {
    EXPECT_TRUE(stream_->Seek(0, 1500));
    EXPECT_EQ(stream_->GetPosition(), 1500u);
    EXPECT_EQ(Read(3), Slice(content_, 1500, 3));

    EXPECT_TRUE(stream_->Seek(2, -100));
    EXPECT_EQ(stream_->GetPosition(), kSize - 100);
    EXPECT_EQ(Read(3), Slice(content_, kSize - 100, 3));

    EXPECT_TRUE(stream_->Seek(1, -3000));
    EXPECT_EQ(stream_->GetPosition(), kSize - 3097);
    EXPECT_EQ(Read(3), Slice(content_, kSize - 3097, 3));

    EXPECT_TRUE(stream_->Seek(1, 50));
    EXPECT_EQ(stream_->GetPosition(), kSize - 3044);
    EXPECT_EQ(Read(3), Slice(content_, kSize - 3044, 3));
}

TEST_F(PagedFileStreamTest, AnyOtherOriginCountsFromTheCurrentPosition) {
    ASSERT_TRUE(stream_->Seek(0, 10));
    for (const std::uint32_t origin : {1u, 3u, 4u, 0xFFFFFFFFu}) {
        const std::uint64_t position = stream_->GetPosition();
        EXPECT_TRUE(stream_->Seek(origin, 5));
        EXPECT_EQ(stream_->GetPosition(), position + 5);
    }
    EXPECT_EQ(seeker_->movesAsked, 4);
}

TEST_F(PagedFileStreamTest, APositionOutsideTheStreamIsRefusedAndChangesNothing) {
    ASSERT_TRUE(stream_->Seek(0, 1500));
    EXPECT_FALSE(stream_->Seek(0, -1));
    EXPECT_FALSE(stream_->Seek(0, static_cast<std::int32_t>(kSize) + 1));
    EXPECT_FALSE(stream_->Seek(2, 1));
    EXPECT_FALSE(stream_->Seek(2, -static_cast<std::int32_t>(kSize) - 1));
    EXPECT_FALSE(stream_->Seek(1, -1501));
    EXPECT_FALSE(stream_->Seek(1, static_cast<std::int32_t>(kSize) - 1499));
    EXPECT_FALSE(stream_->Seek(0, std::numeric_limits<std::int32_t>::min()));
    EXPECT_FALSE(stream_->Seek(1, std::numeric_limits<std::int32_t>::max()));
    EXPECT_EQ(stream_->GetPosition(), 1500u);
    EXPECT_EQ(Read(3), Slice(content_, 1500, 3));
}

TEST_F(PagedFileStreamTest, ARefusedPositionKeepsThePagePinned) {
    Read(1);
    EXPECT_FALSE(stream_->Seek(0, -1));
    EXPECT_EQ(FreePins(), 3);
}

TEST_F(PagedFileStreamTest, SeekingToTheCurrentPositionDoesNotAskTheSeekerAndKeepsThePins) {
    ASSERT_TRUE(stream_->Seek(0, 1500));
    Read(1);
    seeker_->positionsAsked = 0;
    EXPECT_TRUE(stream_->Seek(0, 1501));
    EXPECT_TRUE(stream_->Seek(1, 0));
    EXPECT_TRUE(stream_->Seek(2, 1501 - static_cast<std::int32_t>(kSize)));
    EXPECT_EQ(seeker_->positionsAsked, 0);
    EXPECT_EQ(seeker_->movesAsked, 0);
    EXPECT_EQ(stream_->GetPosition(), 1501u);
    EXPECT_EQ(FreePins(), 3);
}

TEST_F(PagedFileStreamTest, SeekingWithinAPageKeepsItPinnedAndLeavingItUnpins) {
    ASSERT_TRUE(stream_->Seek(0, 1000));
    Read(1);
    const std::uint8_t byte = 1;
    ASSERT_EQ(stream_->Write(&byte, 1), 1u);
    EXPECT_TRUE(stream_->Seek(0, 9000));
    EXPECT_EQ(FreePins(), 3);
    EXPECT_TRUE(stream_->Seek(0, 999));
    EXPECT_EQ(FreePins(), 4);
}

TEST_F(PagedFileStreamTest, AtTheEndThereIsNothingToReadOrWrite) {
    EXPECT_TRUE(stream_->Seek(2, 0));
    EXPECT_EQ(stream_->GetPosition(), kSize);
    EXPECT_THAT(Read(1), IsEmpty());
    const std::uint8_t byte = 1;
    EXPECT_EQ(stream_->Write(&byte, 1), 0u);
    EXPECT_EQ(stream_->GetPosition(), kSize);
}

namespace {

class StreamOfOtherSize : public PagedFileStream {
public:
    using PagedFileStream::PagedFileStream;
    std::uint64_t GetSize() override { return size; }
    std::uint64_t size = 1200;
};

}  // namespace

TEST_F(PagedFileStreamTest, TheEndIsDefinedByTheSizeOfADerivedStream) {
    const Util::RefPtr<StreamOfOtherSize> stream(new StreamOfOtherSize(&cache_, seeker_));
    EXPECT_TRUE(stream->Seek(2, -100));
    EXPECT_EQ(stream->GetPosition(), 1100u);
    stream->size = (std::uint64_t{1} << 32) + 50;  // positions have 32 bits
    EXPECT_TRUE(stream->Seek(2, -20));
    EXPECT_EQ(stream->GetPosition(), 30u);
}

// ---- Reading ------------------------------------------------------------------------------------

TEST_F(PagedFileStreamTest, ReadsEveryByteInOrder) {
    EXPECT_EQ(ReadAll(), content_);
    EXPECT_EQ(stream_->GetPosition(), kSize);
}

TEST_F(PagedFileStreamTest, ReadsInPiecesOfAnySizeGiveTheSameBytes) {
    for (const std::uint64_t piece : Numbers{1, 7, 500, 1000, 1001, 8092}) {
        ASSERT_TRUE(stream_->Seek(0, 0));
        Bytes all;
        for (Bytes part = Read(piece); !part.empty(); part = Read(piece)) {
            all.insert(all.end(), part.begin(), part.end());
            EXPECT_EQ(stream_->GetPosition(), all.size());
        }
        EXPECT_EQ(all, content_);
    }
}

TEST_F(PagedFileStreamTest, AReadOfNothingReadsNothingAndPinsNothing) {
    EXPECT_EQ(stream_->Read(nullptr, 0), 0u);
    EXPECT_EQ(stream_->Write(nullptr, 0), 0u);
    EXPECT_EQ(FreePins(), 4);
}

TEST_F(PagedFileStreamTest, AReadAcrossAPageContinuesWhereTheDataOfTheNextBegins) {
    ASSERT_TRUE(stream_->Seek(0, 990));
    Bytes expected = Slice(file_, FileOffset(12) + 8182, 10);
    const Bytes next = Slice(file_, FileOffset(10) + 100, 20);
    expected.insert(expected.end(), next.begin(), next.end());
    EXPECT_EQ(Read(30), expected);
    EXPECT_EQ(stream_->GetPosition(), 1020u);
}

TEST_F(PagedFileStreamTest, AReadThatEndsWithAPageStepsToTheNextAndUnpins) {
    EXPECT_EQ(Read(1000), Slice(content_, 0, 1000));
    EXPECT_EQ(stream_->GetPosition(), 1000u);
    EXPECT_EQ(FreePins(), 4);
    seeker_->movesAsked = 0;
    EXPECT_TRUE(stream_->Seek(1, 8092));
    EXPECT_EQ(Read(1), Slice(content_, 9092, 1));
}

TEST_F(PagedFileStreamTest, AReadBeyondTheEndIsShortAndStopsThere) {
    ASSERT_TRUE(stream_->Seek(2, -30));
    EXPECT_EQ(Read(100), Slice(content_, kSize - 30, 30));
    EXPECT_EQ(stream_->GetPosition(), kSize);
    EXPECT_TRUE(stream_->Seek(1, -1));
    EXPECT_EQ(Read(100), Slice(content_, kSize - 1, 1));
}

TEST_F(PagedFileStreamTest, ReadsAndWritesInOnePageAskTheCacheOnceEach) {
    const auto pinsOfFirstPage = [&] {
        const std::uint8_t* const data = cache_.GetPageForRead(kFirst.page);
        cache_.ReleasePageForRead(kFirst.page);
        return FieldAt<CachedPage>(data - offsetof(CachedPage, data), 0).pinCount;
    };
    for (int i = 0; i < 5; ++i) {
        Read(10);
    }
    EXPECT_EQ(pinsOfFirstPage(), 1);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(stream_->Write(content_.data() + 50 + 10 * i, 10), 10u);
    }
    EXPECT_EQ(pinsOfFirstPage(), 2);
}

TEST_F(PagedFileStreamTest, EveryPageIsLoadedBeforeItIsUsed) {
    EXPECT_THAT(seeker_->pagesLoaded, IsEmpty());
    Read(1);
    EXPECT_EQ(seeker_->pagesLoaded.front(), 0u);
    EXPECT_THAT(seeker_->pagesLoaded, ::testing::Not(Contains(1u)));
    Read(2000);
    EXPECT_THAT(seeker_->pagesLoaded, Contains(1u));
    EXPECT_THAT(seeker_->pagesLoaded, ::testing::Not(Contains(2u)));
}

TEST_F(PagedFileStreamTest, AFullCacheMakesReadsAndWritesShort) {
    OpenCache(1);
    ASSERT_NE(cache_.GetPageForRead(19), nullptr);
    OpenStream({kFirst, kSecond});
    EXPECT_THAT(Read(10), IsEmpty());
    const std::uint8_t byte = 1;
    EXPECT_EQ(stream_->Write(&byte, 1), 0u);
    EXPECT_EQ(stream_->GetPosition(), 0u);
    cache_.ReleasePageForRead(19);
    EXPECT_EQ(Read(2000), Slice(content_, 0, 2000));
}

TEST_F(PagedFileStreamTest, AReadStopsAtAPageWithAnInvalidNumber) {
    OpenStream({kFirst, {0, {0, 0}}});
    EXPECT_EQ(Read(1000), content_);
    EXPECT_THAT(Read(1), IsEmpty());
    EXPECT_EQ(stream_->GetPosition(), 1000u);
}

TEST_F(PagedFileStreamTest, TheErrorsOfTheCachePassThrough) {
    const StdioFault fault(StdioCall::Read, EIO, 1);
    ASSERT_TRUE(stream_->Seek(0, 900));
    Bytes bytes(200);
    EXPECT_EQ(FileErrorOf([&] { stream_->Read(bytes.data(), 200); }), EIO);
    EXPECT_EQ(FileErrorOf([&] { stream_->Write(bytes.data(), 200); }), EIO);
}

// ---- Writing ------------------------------------------------------------------------------------

TEST_F(PagedFileStreamTest, WritesEveryByteInItsPlaceAndNoOther) {
    const Bytes written = PatternBytes(kSize, 9);
    EXPECT_EQ(stream_->Write(written.data(), kSize), kSize);
    EXPECT_EQ(stream_->GetPosition(), kSize);
    EXPECT_EQ(ReadAll(), written);
    stream_.Reset();
    cache_.Close();

    Bytes expected = file_;
    const auto place = [&](const ListSeeker::Entry& entry, std::ptrdiff_t from) {
        std::copy_n(written.begin() + from, entry.range.end - entry.range.start,
                    expected.begin() +
                        static_cast<std::ptrdiff_t>(FileOffset(entry.page) + entry.range.start));
    };
    place(kFirst, 0);
    place(kSecond, 1000);
    place(kThird, 9092);
    EXPECT_EQ(ReadFile(path_), expected);
}

TEST_F(PagedFileStreamTest, AWriteBeyondTheEndIsShortAndStopsThere) {
    ASSERT_TRUE(stream_->Seek(2, -30));
    const Bytes written = PatternBytes(100, 9);
    EXPECT_EQ(stream_->Write(written.data(), 100), 30u);
    EXPECT_EQ(stream_->GetPosition(), kSize);
    EXPECT_EQ(stream_->GetSize(), kSize);
    ASSERT_TRUE(stream_->Seek(2, -30));
    EXPECT_EQ(Read(100), Slice(written, 0, 30));
}

TEST_F(PagedFileStreamTest, AWriteThatEndsWithAPageStepsToTheNextAndUnpins) {
    const Bytes written = PatternBytes(1000, 9);
    EXPECT_EQ(stream_->Write(written.data(), 1000), 1000u);
    EXPECT_EQ(FreePins(), 4);
    EXPECT_EQ(Read(5), Slice(content_, 1000, 5));
}

TEST_F(PagedFileStreamTest, AWriteGrowsTheFileToCoverItsPage) {
    OpenStream({kFirst});
    const Util::RefPtr<ListSeeker> seeker(new ListSeeker({{25, {10, 20}}}));
    const Util::RefPtr<IDataStream> stream(new PagedFileStream(&cache_, seeker));
    const Bytes written = PatternBytes(10, 9);
    EXPECT_EQ(stream->Write(written.data(), 10), 10u);
    EXPECT_EQ(std::filesystem::file_size(path_), 16u * 8192u);
}

TEST_F(PagedFileStreamTest, ReadingAndWritingPinThePageSeparately) {
    const Bytes written = PatternBytes(10, 9);
    EXPECT_EQ(stream_->Write(written.data(), 10), 10u);
    ASSERT_TRUE(stream_->Seek(1, -10));
    EXPECT_EQ(Read(10), written);
    EXPECT_EQ(FreePins(), 3);
    cache_.ReleasePageForRead(12);
    EXPECT_EQ(FreePins(), 3);
    cache_.ReleasePageForRead(12);
    EXPECT_EQ(FreePins(), 4);
}

TEST_F(PagedFileStreamTest, ReadingPastAPageEndReleasesTheWrittenPageToo) {
    const Bytes written = {1, 2};
    ASSERT_EQ(stream_->Write(&written[0], 1), 1u);
    Read(999);
    EXPECT_EQ(FreePins(), 4);
    ASSERT_EQ(stream_->Write(&written[1], 1), 1u);
    content_[0] = 1;
    content_[1000] = 2;
    EXPECT_EQ(ReadAll(), content_);
}

TEST_F(PagedFileStreamTest, WritingPastAPageEndReleasesTheReadPageToo) {
    Read(1);
    ASSERT_EQ(stream_->Write(&content_[1], 999), 999u);
    EXPECT_EQ(FreePins(), 4);
    EXPECT_EQ(Read(1), Slice(content_, 1000, 1));
}

TEST_F(PagedFileStreamTest, ReleasedPagesArePinnedAgainByTheNextAccess) {
    Read(10);
    stream_->ReleasePages();
    EXPECT_EQ(FreePins(), 4);
    EXPECT_EQ(stream_->GetPosition(), 10u);
    EXPECT_EQ(Read(10), Slice(content_, 10, 10));
    EXPECT_EQ(FreePins(), 3);
}

// ---- Removing bytes -----------------------------------------------------------------------------

TEST_F(PagedFileStreamTest, RemoveRangeMovesTheBytesAfterItDownAndSeeksThere) {
    for (const std::int32_t position : {0, 1, 990, 1000, 5000, 9000, 9092, 9300}) {
        for (const std::int32_t length : {1, 10, 150, 291, 292}) {
            ASSERT_TRUE(stream_->Seek(0, 0));
            ASSERT_EQ(stream_->Write(content_.data(), kSize), kSize);
            ASSERT_TRUE(stream_->RemoveRange(position, length)) << position << ' ' << length;
            EXPECT_EQ(stream_->GetPosition(), static_cast<std::uint64_t>(position));
            EXPECT_EQ(stream_->GetSize(), kSize);
            Bytes expected = content_;
            std::copy(content_.begin() + position + length, content_.end(),
                      expected.begin() + position);
            EXPECT_EQ(ReadAll(), expected) << position << ' ' << length;
        }
    }
}

TEST_F(PagedFileStreamTest, RemoveRangeAcrossWholePagesMovesEveryByte) {
    ASSERT_TRUE(stream_->RemoveRange(500, 8592));
    Bytes expected = content_;
    std::copy(content_.begin() + 9092, content_.end(), expected.begin() + 500);
    EXPECT_EQ(ReadAll(), expected);
}

TEST_F(PagedFileStreamTest, RemoveRangeOfNothingCopiesTheBytesOntoThemselvesAndSeeks) {
    ASSERT_TRUE(stream_->Seek(0, 5));
    stream_->ReleasePages();
    cache_.DiscardAll();
    const StdioCounts before = CountStdioCalls();
    EXPECT_TRUE(stream_->RemoveRange(900, 0));
    EXPECT_EQ(CountStdioCalls().reads - before.reads, 3u);
    EXPECT_EQ(stream_->GetPosition(), 900u);
    EXPECT_EQ(ReadAll(), content_);
}

TEST_F(PagedFileStreamTest, RemoveRangeUpToTheEndOnlySeeks) {
    const StdioCounts before = CountStdioCalls();
    EXPECT_TRUE(stream_->RemoveRange(900, static_cast<std::int32_t>(kSize) - 900));
    EXPECT_EQ(CountStdioCalls().reads, before.reads);
    EXPECT_EQ(stream_->GetPosition(), 900u);
    EXPECT_TRUE(stream_->RemoveRange(static_cast<std::int32_t>(kSize), 0));
    EXPECT_EQ(stream_->GetPosition(), kSize);
    EXPECT_EQ(ReadAll(), content_);
}

TEST_F(PagedFileStreamTest, RemoveRangeOutsideTheStreamIsRefusedAndChangesNothing) {
    ASSERT_TRUE(stream_->Seek(0, 7));
    const auto size = static_cast<std::int32_t>(kSize);
    EXPECT_FALSE(stream_->RemoveRange(-1, 1));
    EXPECT_FALSE(stream_->RemoveRange(size + 1, 0));
    EXPECT_FALSE(stream_->RemoveRange(size, 1));
    EXPECT_FALSE(stream_->RemoveRange(100, size - 99));
    EXPECT_FALSE(stream_->RemoveRange(100, -1));
    EXPECT_FALSE(stream_->RemoveRange(100, std::numeric_limits<std::int32_t>::min()));
    EXPECT_EQ(stream_->GetPosition(), 7u);
    EXPECT_EQ(ReadAll(), content_);
}

// Refuses every move after the first `movesPlaced`.
class TiringSeeker : public ListSeeker {
public:
    using ListSeeker::ListSeeker;

    bool MovePosition(std::uint64_t& pageIndex, std::uint64_t& pageOffset, const PagePosition& from,
                      std::uint32_t distance) override {
        placesPositions = movesAsked < movesPlaced;
        const bool isPlaced = ListSeeker::MovePosition(pageIndex, pageOffset, from, distance);
        placesPositions = true;
        return isPlaced;
    }

    int movesPlaced = 0;
};

TEST_F(PagedFileStreamTest, RemoveRangeIsRefusedAndKeepsThePositionIfAnyMoveIsRefused) {
    for (int moves = 0; moves < 5; ++moves) {
        const Util::RefPtr<TiringSeeker> seeker(new TiringSeeker({kFirst, kSecond, kThird}));
        stream_ = new PagedFileStream(&cache_, seeker);
        ASSERT_TRUE(stream_->Seek(0, 7));
        seeker->movesPlaced = moves;
        EXPECT_FALSE(stream_->RemoveRange(900, 10)) << moves;
        EXPECT_EQ(seeker->movesAsked, moves + 1);
        EXPECT_EQ(stream_->GetPosition(), 7u);
        EXPECT_EQ(FreePins(), 4);
    }
}

// Maps every position to the same place.
class FixedSeeker : public ListSeeker {
public:
    FixedSeeker(std::initializer_list<Entry> entries, const PagePosition& place)
        : ListSeeker(entries), place_(place) {}

    bool PositionToPage(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                        std::int32_t /*position*/) override {
        pageIndex = place_.pageIndex;
        pageOffset = place_.pageOffset;
        return true;
    }

private:
    const PagePosition place_;
};

TEST_F(PagedFileStreamTest, HasNoBytesPastItsPages) {
    const Util::RefPtr<IPagedFileSeeker> seeker(new FixedSeeker({kFirst, kSecond}, {2, 0}));
    stream_ = new PagedFileStream(&cache_, seeker);
    EXPECT_EQ(Read(10), Bytes());
    const std::uint8_t byte = 1;
    EXPECT_EQ(stream_->Write(&byte, 1), 0u);
    EXPECT_TRUE(stream_->RemoveRange(0, 0));
    EXPECT_EQ(ReadFile(path_), file_);
}

TEST_F(PagedFileStreamTest, RemoveRangeToAPlaceWithoutBytesThrowsCorrupt) {
    const Util::RefPtr<IPagedFileSeeker> seeker(new FixedSeeker({kFirst, kSecond}, {0, 8192}));
    stream_ = new PagedFileStream(&cache_, seeker);
    EXPECT_THROW(static_cast<void>(stream_->RemoveRange(0, 5)), FileDataCorruptException);
    EXPECT_EQ(FreePins(), 4);
}

TEST_F(PagedFileStreamTest, RemoveRangeThatCannotPinBothPagesThrowsCorruptAndUnpins) {
    OpenCache(1);
    OpenStream({kFirst, kSecond});
    EXPECT_THROW(static_cast<void>(stream_->RemoveRange(0, 1000)), FileDataCorruptException);
    EXPECT_EQ(FreePins(), 1);
    EXPECT_EQ(ReadAll(), content_);
}

TEST_F(PagedFileStreamTest, RemoveRangeThatCannotPinItsDestinationThrowsCorrupt) {
    OpenCache(1);
    OpenStream({kFirst, kSecond});
    ASSERT_NE(cache_.GetPageForRead(19), nullptr);
    EXPECT_THROW(static_cast<void>(stream_->RemoveRange(0, 10)), FileDataCorruptException);
}

TEST_F(PagedFileStreamTest, RemoveRangeKeepsTheStreamsOwnPins) {
    Read(1);
    ASSERT_EQ(FreePins(), 3);
    ASSERT_TRUE(stream_->RemoveRange(500, 8592));  // its source is another page
    EXPECT_EQ(FreePins(), 3);
}

TEST_F(PagedFileStreamTest, RemoveRangePinsItsSourceForReadingAndItsDestinationForWriting) {
    constexpr ListSeeker::Entry kBeyond = {25, {0, 8192}};
    const auto openOver = [this](std::initializer_list<ListSeeker::Entry> entries) {
        const Util::RefPtr<IPagedFileSeeker> seeker(new ListSeeker(entries));
        stream_ = new PagedFileStream(&cache_, seeker);
    };
    openOver({kFirst, kBeyond});
    const auto size = std::filesystem::file_size(path_);
    EXPECT_THROW(static_cast<void>(stream_->RemoveRange(0, 1000)), FileIOException);
    EXPECT_EQ(std::filesystem::file_size(path_), size);
    openOver({kBeyond, kFirst});
    EXPECT_TRUE(stream_->RemoveRange(0, 8192));
    EXPECT_EQ(std::filesystem::file_size(path_), 16 * kPageSize);
}

// Records at each move how many pages the cache can still pin.
class PinWatchingSeeker : public ListSeeker {
public:
    using ListSeeker::ListSeeker;

    bool MovePosition(std::uint64_t& pageIndex, std::uint64_t& pageOffset, const PagePosition& from,
                      std::uint32_t distance) override {
        freePins.push_back(watch());
        return ListSeeker::MovePosition(pageIndex, pageOffset, from, distance);
    }

    std::function<int()> watch;
    std::vector<int> freePins;
};

TEST_F(PagedFileStreamTest, RemoveRangeHoldsBothPagesWhileItAdvances) {
    const Util::RefPtr<PinWatchingSeeker> seeker(new PinWatchingSeeker({kFirst, kThird}));
    seeker->watch = [this] { return FreePins(); };
    stream_ = new PagedFileStream(&cache_, seeker);
    ASSERT_TRUE(stream_->RemoveRange(0, 1000));
    EXPECT_THAT(seeker->freePins, ElementsAre(4, 2, 2));
}

TEST_F(PagedFileStreamTest, RemoveRangeEndsInTheLastPageOnly) {
    const Util::RefPtr<IPagedFileSeeker> seeker(new FixedSeeker({kFirst, kSecond}, {0, 8192}));
    stream_ = new PagedFileStream(&cache_, seeker);
    EXPECT_THROW(static_cast<void>(stream_->RemoveRange(0, 0)), FileDataCorruptException);
}

TEST_F(PagedFileStreamTest, RemoveRangeWithinOnePageNeedsCapacityForOne) {
    OpenCache(1);
    OpenStream({kFirst});
    EXPECT_TRUE(stream_->RemoveRange(100, 50));
    Bytes expected = content_;
    std::copy(content_.begin() + 150, content_.end(), expected.begin() + 100);
    EXPECT_EQ(ReadAll(), expected);
}

namespace {

class StreamThatCantSeek : public PagedFileStream {
public:
    using PagedFileStream::PagedFileStream;
    bool Seek(std::uint32_t origin, std::int32_t offset) override {
        asked = {origin, offset};
        return false;
    }
    std::pair<std::uint32_t, std::int32_t> asked;
};

}  // namespace

TEST_F(PagedFileStreamTest, RemoveRangeReturnsTheResultOfADerivedSeek) {
    const Util::RefPtr<StreamThatCantSeek> stream(new StreamThatCantSeek(&cache_, seeker_));
    EXPECT_FALSE(stream->RemoveRange(9000, 10));
    EXPECT_EQ(stream->asked, std::make_pair(std::uint32_t{0}, std::int32_t{9000}));
}

// ---- Moving to other pages ----------------------------------------------------------------------

TEST_F(PagedFileStreamTest, MoveToKeepsThePositionAndContinuesInTheOtherPages) {
    ASSERT_TRUE(stream_->Seek(0, 1500));
    Read(1);
    // The same number of bytes, in other ranges of other pages.
    const Util::RefPtr<ListSeeker> other(new ListSeeker({{17, {0, 8192}}, {15, {40, 1440}}}));
    stream_->MoveTo(other);
    EXPECT_EQ(FreePins(), 4);
    EXPECT_EQ(stream_->GetPosition(), 1501u);
    Bytes moved = Slice(file_, FileOffset(17), 8192);
    const Bytes rest = Slice(file_, FileOffset(15) + 40, 1400);
    moved.insert(moved.end(), rest.begin(), rest.end());
    EXPECT_EQ(Read(8000), Slice(moved, 1501, 8000));
    EXPECT_EQ(stream_->GetSize(), kSize);
    EXPECT_EQ(ReadAll(), moved);
    EXPECT_EQ(seeker_->AddRef(), 2u);  // only the test holds it now
    seeker_->Release();
}

TEST_F(PagedFileStreamTest, MoveToPagesWithoutThePositionThrowsCorruptAndChangesNothing) {
    ASSERT_TRUE(stream_->Seek(0, 1500));
    const Util::RefPtr<ListSeeker> shorter(new ListSeeker({{17, {0, 1499}}}));
    EXPECT_THROW(stream_->MoveTo(shorter), FileDataCorruptException);
    EXPECT_EQ(stream_->GetPosition(), 1500u);
    EXPECT_EQ(stream_->GetSize(), kSize);
    EXPECT_EQ(Read(10), Slice(content_, 1500, 10));
}

// ---- Without a seeker ---------------------------------------------------------------------------

TEST_F(PagedFileStreamTest, ADetachedStreamHasNoBytesAndHoldsNothing) {
    ASSERT_TRUE(stream_->Seek(0, 1500));
    Read(1);
    stream_->Detach();
    EXPECT_EQ(FreePins(), 4);
    EXPECT_EQ(seeker_->AddRef(), 2u);
    seeker_->Release();
    std::uint8_t byte = 5;
    EXPECT_EQ(stream_->Read(&byte, 1), 0u);
    EXPECT_EQ(stream_->Write(&byte, 1), 0u);
    EXPECT_EQ(byte, 5);
    EXPECT_EQ(stream_->GetPosition(), 0u);
    EXPECT_EQ(stream_->GetSize(), 0u);
    for (const std::uint32_t origin : {0u, 1u, 2u}) {
        EXPECT_FALSE(stream_->Seek(origin, 0));
    }
    EXPECT_FALSE(stream_->RemoveRange(0, 0));
    stream_->Detach();
    EXPECT_EQ(stream_->GetSize(), 0u);
}

// ---- Layout -------------------------------------------------------------------------------------

TEST_F(PagedFileStreamTest, KeepsItsStateInOneFixedOrder) {
    static_assert(sizeof(PagedFileStream) == 104);
    ASSERT_TRUE(stream_->Seek(0, 1500));
    Read(1);
    const std::uint8_t byte = 1;
    ASSERT_EQ(stream_->Write(&byte, 1), 1u);
    const PagedFileStream* const stream = stream_.Get();
    EXPECT_EQ(FieldAt<FilePageCache*>(stream, 16), &cache_);
    EXPECT_EQ(FieldAt<IPagedFileSeeker*>(stream, 24), seeker_.Get());
    EXPECT_EQ(FieldAt<std::uint64_t>(stream, 32), 1u);    // page index
    EXPECT_EQ(FieldAt<std::uint64_t>(stream, 40), 602u);  // page offset
    EXPECT_EQ(FieldAt<std::uint64_t>(stream, 48), 1502u);
    EXPECT_EQ(FieldAt<FilePageCache*>(stream, 56), &cache_);  // the page pinned for reading
    EXPECT_EQ(FieldAt<std::uint64_t>(stream, 72), 10u);
    EXPECT_EQ(FieldAt<FilePageCache*>(stream, 80), &cache_);  // the page pinned for writing
    EXPECT_EQ(FieldAt<std::uint64_t>(stream, 96), 10u);
}

TEST(IDataStreamInterface, HasItsOperationsInOrderAfterTheReferenceCounting) {
    const std::size_t first = VirtualSlot(&IDataStream::AddRef) + 3;
    EXPECT_EQ(VirtualSlot(&IDataStream::GetPosition), first);
    EXPECT_EQ(VirtualSlot(&IDataStream::GetSize), first + 1);
    EXPECT_EQ(VirtualSlot(&IDataStream::Seek), first + 2);
    EXPECT_EQ(VirtualSlot(&IDataStream::Read), first + 3);
    EXPECT_EQ(VirtualSlot(&IDataStream::Write), first + 4);
    static_assert(std::is_base_of_v<Util::ARefObject, IDataStream>);
    static_assert(!std::is_destructible_v<IDataStream>);
}

}  // namespace Quorvel::Testing
