#include "seekers/ChildFileSeeker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <limits>
#include <map>
#include <utility>

#include "pagestore/Fakes.h"
#include "pagestore/PageAllocator.h"
#include "quorvel/Exceptions.h"
#include "seekers/HeadFileFixture.h"

namespace Quorvel::Testing {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Returns the successors that a test sets, and records the pages for which it is asked.
class LinkAllocator : public IPageAllocator {
public:
    std::uint64_t AllocatePage(std::uint64_t) override { return 0; }
    void FreePage(std::uint64_t) override {}
    bool MarkPageAllocated(std::uint64_t) override { return false; }
    bool IsPageAllocated(std::uint64_t) override { return true; }
    std::uint64_t GetNextPage(std::uint64_t page) override {
        asked.push_back(page);
        const auto link = links.find(page);
        return link != links.end() ? link->second : otherLink;
    }

    std::map<std::uint64_t, std::uint64_t> links;
    std::uint64_t otherLink = 0;
    Numbers asked;
};

constexpr ChildFileTail kNoTail = {};

class ChildFileSeekerTest : public ::testing::Test {
protected:
    // Pages 20, 31 and 12 are a chain; a tail block lies in pages 40 to 42.
    ChildFileSeekerTest() {
        allocator_->links = {{20, 31}, {31, 12}, {12, 0}, {40, 41}, {41, 42}, {42, 0}};
    }

    // Attaches the seeker to a file: `wholePages` pages of the chain that begins with page 20, and
    // a tail.
    void Attach(std::uint64_t wholePages, const ChildFileTail& tail) {
        EXPECT_TRUE(seeker_->Attach(allocator_, ExtentFor(wholePages, tail), tail));
    }

    void ExpectCorrupt(const ChildFileExtent& extent, const ChildFileTail& tail) {
        EXPECT_THROW(seeker_->Attach(allocator_, extent, tail), FileDataCorruptException);
    }

    static ChildFileExtent ExtentFor(std::uint64_t wholePages, const ChildFileTail& tail) {
        return {7, wholePages * 8192 + tail.tailLength, wholePages != 0 ? 20u : 0u, wholePages};
    }

    Place PlaceAt(std::int32_t position) { return PlaceOf(*seeker_, position); }

    Numbers PageNumbers() const {
        return {seeker_->pageNumbers, seeker_->pageNumbers + seeker_->pageCount};
    }
    // Start and end of every range.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> Ranges() const {
        std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
        for (std::uint64_t i = 0; i < seeker_->pageCount; ++i) {
            ranges.emplace_back(seeker_->pageRanges[i].start, seeker_->pageRanges[i].end);
        }
        return ranges;
    }

    const Util::RefPtr<LinkAllocator> allocator_{new LinkAllocator};
    const Util::RefPtr<ChildFileSeeker> seeker_{new ChildFileSeeker};
};

using Range = std::pair<std::uint64_t, std::uint64_t>;

}  // namespace

// ---- The page table -----------------------------------------------------------------------------

TEST_F(ChildFileSeekerTest, IsEmptyAtFirst) {
    EXPECT_EQ(seeker_->byteSize, 0u);
    EXPECT_EQ(seeker_->pageCount, 0u);
    EXPECT_EQ(seeker_->pageNumbers, nullptr);
    EXPECT_EQ(seeker_->pageRanges, nullptr);
    EXPECT_FALSE(PlaceAt(0).found);
}

TEST_F(ChildFileSeekerTest, WholePagesAreInChainOrder) {
    Attach(3, kNoTail);
    EXPECT_EQ(seeker_->byteSize, 24576u);
    EXPECT_THAT(PageNumbers(), ElementsAre(20, 31, 12));
    EXPECT_THAT(Ranges(), ElementsAre(Range(0, 8192), Range(0, 8192), Range(0, 8192)));
}

TEST_F(ChildFileSeekerTest, ATailWithinAPageIsOneEntryAfterTheWholePages) {
    Attach(2, {40, 0, 100, 50});
    EXPECT_EQ(seeker_->byteSize, 16434u);
    EXPECT_THAT(PageNumbers(), ElementsAre(20, 31, 40));
    EXPECT_THAT(Ranges(), ElementsAre(Range(0, 8192), Range(0, 8192), Range(100, 150)));
}

TEST_F(ChildFileSeekerTest, ATailThatCrossesItsPageEndIsTwoEntries) {
    Attach(1, {41, 42, 8000, 500});
    EXPECT_THAT(PageNumbers(), ElementsAre(20, 41, 42));
    EXPECT_THAT(Ranges(), ElementsAre(Range(0, 8192), Range(8000, 8192), Range(0, 308)));
}

TEST_F(ChildFileSeekerTest, ATailThatEndsWithItsPageGetsAnEmptySecondEntry) {
    Attach(0, {42, 0, 4096, 4096});
    EXPECT_THAT(PageNumbers(), ElementsAre(42, 0));
    EXPECT_THAT(Ranges(), ElementsAre(Range(4096, 8192), Range(0, 0)));
    Attach(0, {41, 42, 4096, 4096});
    EXPECT_THAT(PageNumbers(), ElementsAre(41, 42));
    EXPECT_THAT(Ranges(), ElementsAre(Range(4096, 8192), Range(0, 0)));
}

TEST_F(ChildFileSeekerTest, ATailThatEndsOneByteBeforeItsPageIsOneEntry) {
    Attach(0, {40, 41, 4096, 4095});
    EXPECT_THAT(PageNumbers(), ElementsAre(40));
    EXPECT_THAT(Ranges(), ElementsAre(Range(4096, 8191)));
}

TEST_F(ChildFileSeekerTest, TheLongestAndTheShortestTailsAreAccepted) {
    Attach(0, {40, 41, 8191, 8191});
    EXPECT_THAT(Ranges(), ElementsAre(Range(8191, 8192), Range(0, 8190)));
    Attach(0, {40, 0, 0, 1});
    EXPECT_THAT(Ranges(), ElementsAre(Range(0, 1)));
    Attach(0, {40, 0, 8191, 1});
    EXPECT_THAT(Ranges(), ElementsAre(Range(8191, 8192), Range(0, 0)));
    Attach(0, {40, 0, 0, 8191});
    EXPECT_THAT(Ranges(), ElementsAre(Range(0, 8191)));
}

TEST_F(ChildFileSeekerTest, TheSuccessorOfTheLastPageIsRequestedButNotUsed) {
    allocator_->links[12] = ~std::uint64_t{0};
    Attach(3, kNoTail);
    EXPECT_THAT(allocator_->asked, ElementsAre(20, 31, 12));
    EXPECT_THAT(PageNumbers(), ElementsAre(20, 31, 12));
}

TEST_F(ChildFileSeekerTest, TheAllocatorIsAskedOnlyWhileAttaching) {
    Attach(3, {40, 41, 8000, 500});
    allocator_->asked.clear();
    for (std::int32_t position = 0; position < 25000; position += 100) {
        PlaceAt(position);
    }
    seeker_->LoadPageInfo(4);
    EXPECT_THAT(allocator_->asked, IsEmpty());
}

TEST_F(ChildFileSeekerTest, LoadPageInfoDoesNothingForAnyPage) {
    Attach(2, {40, 0, 100, 50});
    const Numbers numbers = PageNumbers();
    const auto ranges = Ranges();
    for (const std::uint64_t index : Numbers{0, 3, ~std::uint64_t{0}}) {
        seeker_->LoadPageInfo(index);
    }
    EXPECT_EQ(PageNumbers(), numbers);
    EXPECT_EQ(Ranges(), ranges);
}

TEST_F(ChildFileSeekerTest, AttachingAgainRebuildsEverything) {
    Attach(3, {40, 41, 8000, 500});
    Attach(1, {42, 0, 10, 20});
    EXPECT_EQ(seeker_->byteSize, 8212u);
    EXPECT_THAT(PageNumbers(), ElementsAre(20, 42));
    EXPECT_THAT(Ranges(), ElementsAre(Range(0, 8192), Range(10, 30)));
}

TEST_F(ChildFileSeekerTest, FollowsTheChainOfARealAllocator) {
    const Util::RefPtr<PageAllocator> allocator(new PageAllocator);
    allocator->AllocatePage(0);
    allocator->AllocatePage(0);
    allocator->AllocatePage(10);
    EXPECT_TRUE(seeker_->Attach(allocator, {7, 16384, 10, 2}, kNoTail));
    EXPECT_THAT(PageNumbers(), ElementsAre(10, 12));
}

// ---- Inconsistent records -----------------------------------------------------------------------

TEST_F(ChildFileSeekerTest, AnEmptyFileIsCorrupt) {
    ExpectCorrupt({7, 0, 0, 0}, kNoTail);
    EXPECT_EQ(seeker_->pageNumbers, nullptr);
    EXPECT_EQ(seeker_->pageRanges, nullptr);
}

TEST_F(ChildFileSeekerTest, ASizeThatDiffersFromPagesPlusTailIsCorrupt) {
    const ChildFileTail tail = {40, 0, 100, 50};
    ExpectCorrupt({7, 16433, 20, 2}, tail);
    ExpectCorrupt({7, 16435, 20, 2}, tail);
    ExpectCorrupt({7, 16434, 20, 1}, tail);
    ExpectCorrupt({7, 16434, 20, 3}, tail);
    ExpectCorrupt({7, 16434, 20, 2}, kNoTail);
    ExpectCorrupt({7, 16384, 20, 2}, tail);
    ExpectCorrupt({7, 0, 20, 2}, kNoTail);
}

TEST_F(ChildFileSeekerTest, ASizeBeyondTheWholePagesAndTwoMoreIsCorrupt) {
    ExpectCorrupt({7, 4 * 8192 + 1, 20, 2}, {40, 41, 100, 2 * 8192 + 1});
}

TEST_F(ChildFileSeekerTest, NumbersThatOverflowAreCorrupt) {
    constexpr std::uint64_t kMost = ~std::uint64_t{0};
    ExpectCorrupt({7, kMost, 20, kMost}, {40, 41, 100, 8191});
    ExpectCorrupt({7, 0, 20, kMost}, {40, 41, 100, 8192});
    ExpectCorrupt({7, 0, 20, std::uint64_t{1} << 51}, kNoTail);
    ExpectCorrupt({7, 50, 20, std::uint64_t{1} << 51}, {40, 41, 100, 50});
    ExpectCorrupt({7, kMost, 20, 2}, {40, 41, 100, kMost - 2 * 8192});
}

TEST_F(ChildFileSeekerTest, MorePagesThanAFileMayHaveIsCorrupt) {
    allocator_->otherLink = 21;
    allocator_->links.clear();
    constexpr std::uint64_t kMostWholePages = 1048566 - 2;
    ExpectCorrupt(ExtentFor(kMostWholePages + 1, kNoTail), kNoTail);
    Attach(kMostWholePages, kNoTail);
    EXPECT_EQ(seeker_->pageCount, kMostWholePages);
}

TEST_F(ChildFileSeekerTest, AChainThatReturnsToItsFirstPageIsCorrupt) {
    allocator_->links[12] = 20;
    Attach(3, kNoTail);
    ExpectCorrupt(ExtentFor(4, kNoTail), kNoTail);
}

TEST_F(ChildFileSeekerTest, AFreePageInTheChainIsCorrupt) {
    for (const std::uint64_t page : {20U, 31U, 12U}) {
        const std::uint64_t link = std::exchange(allocator_->links[page], kFreePage);
        ExpectCorrupt(ExtentFor(3, kNoTail), kNoTail);
        allocator_->links[page] = link;
    }
    Attach(3, kNoTail);
}

TEST_F(ChildFileSeekerTest, ATailThatBeginsOrEndsOutsideItsRangeIsCorrupt) {
    ExpectCorrupt({7, 50, 0, 0}, {40, 41, 8192, 50});
    ExpectCorrupt({7, 50, 0, 0}, {40, 41, ~std::uint64_t{0}, 50});
    ExpectCorrupt({7, 8192, 0, 0}, {40, 41, 100, 8192});
}

TEST_F(ChildFileSeekerTest, AWholePageWithoutAValidNumberIsCorrupt) {
    for (const std::uint64_t first : Numbers{0, 9, 0x100000, ~std::uint64_t{0}}) {
        ExpectCorrupt({7, 8192, first, 1}, kNoTail);
    }
    EXPECT_THAT(allocator_->asked, IsEmpty());
    for (const std::uint64_t link : Numbers{5, 9, 0x100000}) {
        allocator_->links[31] = link;
        ExpectCorrupt(ExtentFor(3, kNoTail), kNoTail);
    }
}

TEST_F(ChildFileSeekerTest, TheLowestAndTheHighestPageNumbersAreAccepted) {
    allocator_->links = {{10, 0xFFFFF}, {0xFFFFF, 0}};
    EXPECT_TRUE(seeker_->Attach(allocator_, {7, 16384, 10, 2}, kNoTail));
    EXPECT_THAT(PageNumbers(), ElementsAre(10, 0xFFFFF));
}

TEST_F(ChildFileSeekerTest, AChainThatEndsTooEarlyIsCorrupt) {
    ExpectCorrupt(ExtentFor(4, kNoTail), kNoTail);
}

TEST_F(ChildFileSeekerTest, AChainThatRunsIntoAFreePageIsCorrupt) {
    allocator_->links[31] = 1;
    ExpectCorrupt(ExtentFor(3, kNoTail), kNoTail);
}

TEST_F(ChildFileSeekerTest, ATailPageWithoutAValidNumberIsCorrupt) {
    for (const std::uint64_t page : Numbers{0, 9, 0x100000}) {
        ExpectCorrupt({7, 50, 0, 0}, {page, 0, 100, 50});
    }
}

TEST_F(ChildFileSeekerTest, AFollowingPageThatDoesNotFollowTheTailPageIsCorrupt) {
    ExpectCorrupt({7, 500, 0, 0}, {40, 42, 8000, 500});
    ExpectCorrupt({7, 500, 0, 0}, {42, 43, 8000, 500});
    ExpectCorrupt({7, 4096, 0, 0}, {40, 42, 4096, 4096});
}

TEST_F(ChildFileSeekerTest, ATailThatCrossesItsPageEndWithoutAFollowingPageIsCorrupt) {
    ExpectCorrupt({7, 4097, 0, 0}, {42, 0, 4096, 4097});
    ExpectCorrupt({7, 500, 0, 0}, {40, 0, 8000, 500});
}

TEST_F(ChildFileSeekerTest, AFollowingPageIsIgnoredIfTheTailEndsBeforeIt) {
    Attach(0, {40, 99, 100, 50});
    EXPECT_THAT(PageNumbers(), ElementsAre(40));
    EXPECT_THAT(allocator_->asked, IsEmpty());
}

// ---- Positions ----------------------------------------------------------------------------------

TEST_F(ChildFileSeekerTest, WholePagesHoldDataFromTheirFirstByteToTheirLast) {
    Attach(2, kNoTail);
    EXPECT_EQ(PlaceAt(0), (Place{true, 0, 0}));
    EXPECT_EQ(PlaceAt(8191), (Place{true, 0, 8191}));
    EXPECT_EQ(PlaceAt(8192), (Place{true, 1, 0}));
    EXPECT_EQ(PlaceAt(16383), (Place{true, 1, 8191}));
    EXPECT_EQ(PlaceAt(16384), (Place{true, 1, 8192}));
}

TEST_F(ChildFileSeekerTest, ATailWithinAPageBeginsAtItsOffset) {
    Attach(0, {40, 0, 100, 50});
    EXPECT_EQ(PlaceAt(0), (Place{true, 0, 100}));
    EXPECT_EQ(PlaceAt(49), (Place{true, 0, 149}));
    EXPECT_EQ(PlaceAt(50), (Place{true, 0, 150}));
}

TEST_F(ChildFileSeekerTest, ATailThatCrossesContinuesAtTheStartOfTheFollowingPage) {
    Attach(0, {40, 41, 8000, 500});
    EXPECT_EQ(PlaceAt(0), (Place{true, 0, 8000}));
    EXPECT_EQ(PlaceAt(191), (Place{true, 0, 8191}));
    EXPECT_EQ(PlaceAt(192), (Place{true, 1, 0}));
    EXPECT_EQ(PlaceAt(500), (Place{true, 1, 308}));
}

TEST_F(ChildFileSeekerTest, TheEndOfATailThatEndsWithItsPageLiesInTheEmptyEntry) {
    Attach(0, {42, 0, 4096, 4096});
    EXPECT_EQ(PlaceAt(4095), (Place{true, 0, 8191}));
    EXPECT_EQ(PlaceAt(4096), (Place{true, 1, 0}));
}

TEST_F(ChildFileSeekerTest, ATailBeginsAfterTheWholePages) {
    Attach(2, {40, 41, 8000, 500});
    EXPECT_EQ(PlaceAt(16383), (Place{true, 1, 8191}));
    EXPECT_EQ(PlaceAt(16384), (Place{true, 2, 8000}));
    EXPECT_EQ(PlaceAt(16384 + 192), (Place{true, 3, 0}));
    EXPECT_EQ(PlaceAt(16384 + 500), (Place{true, 3, 308}));
}

TEST_F(ChildFileSeekerTest, APositionOutsideTheFileIsNowhere) {
    for (const ChildFileTail& tail :
         {kNoTail, ChildFileTail{40, 0, 100, 50}, ChildFileTail{40, 41, 8000, 500},
          ChildFileTail{42, 0, 4096, 4096}}) {
        Attach(2, tail);
        const auto size = static_cast<std::int32_t>(seeker_->byteSize);
        EXPECT_EQ(PlaceAt(-1), kNowhere);
        EXPECT_EQ(PlaceAt(size + 1), kNowhere);
        EXPECT_EQ(PlaceAt(std::numeric_limits<std::int32_t>::min()), kNowhere);
        EXPECT_EQ(PlaceAt(std::numeric_limits<std::int32_t>::max()), kNowhere);
    }
}

TEST_F(ChildFileSeekerTest, APositionPastThePagesIsNowhereEvenIfTheSizeIncludesIt) {
    Attach(1, kNoTail);
    seeker_->byteSize = 4 * 8192;
    EXPECT_EQ(PlaceAt(8192), (Place{true, 0, 8192}));
    EXPECT_EQ(PlaceAt(8193), kNowhere);
    EXPECT_EQ(PlaceAt(2 * 8192), kNowhere);
    EXPECT_EQ(PlaceAt(2 * 8192 + 1), kNowhere);
}

TEST_F(ChildFileSeekerTest, PositionsAreComparedWithTheLow32BitsOfTheSizeAsASignedNumber) {
    allocator_->otherLink = 21;
    allocator_->links.clear();
    Attach(262144, kNoTail);  // 2 GiB
    EXPECT_EQ(PlaceAt(0), kNowhere);
    Attach(524288, {40, 0, 100, 50});  // 4 GiB and 50 bytes
    EXPECT_EQ(PlaceAt(50), (Place{true, 0, 50}));
    EXPECT_EQ(PlaceAt(51), kNowhere);
}

TEST_F(ChildFileSeekerTest, PositionsAndPlacesConvertBothWays) {
    for (const std::uint64_t wholePages : Numbers{0, 1, 2}) {
        for (const ChildFileTail& tail :
             {ChildFileTail{40, 0, 0, 1}, ChildFileTail{40, 0, 100, 50},
              ChildFileTail{40, 41, 8000, 500}, ChildFileTail{42, 0, 4096, 4096},
              ChildFileTail{40, 41, 8191, 8191}}) {
            Attach(wholePages, tail);
            for (std::uint64_t position = 0; position <= seeker_->byteSize; ++position) {
                const Place place = PlaceAt(static_cast<std::int32_t>(position));
                ASSERT_TRUE(place.found) << position;
                const PageRange& range = seeker_->pageRanges[place.pageIndex];
                ASSERT_GE(place.pageOffset, range.start);
                ASSERT_LE(place.pageOffset, range.end);
                ASSERT_EQ(seeker_->PageToPosition(place.pageIndex, place.pageOffset), position);
            }
        }
    }
}

TEST_F(ChildFileSeekerTest, PageToPositionRefusesAPageMoreThanOnePastTheLast) {
    Attach(2, {40, 0, 100, 50});
    EXPECT_THROW(seeker_->PageToPosition(4, 0), InvalidParameterException);
    EXPECT_EQ(seeker_->PageToPosition(3, 0), 16434u);
    Attach(2, {40, 41, 8000, 500});
    EXPECT_THROW(seeker_->PageToPosition(5, 0), InvalidParameterException);
    EXPECT_EQ(seeker_->PageToPosition(4, 0), 16384u + 308u);  // counts only the entry before it
    Attach(2, kNoTail);
    EXPECT_THROW(seeker_->PageToPosition(3, 0), InvalidParameterException);
    EXPECT_EQ(seeker_->PageToPosition(2, 0), 16384u);
}

// ---- Moving -------------------------------------------------------------------------------------

TEST_F(ChildFileSeekerTest, MovesFromEveryPlaceToEveryOtherInBothDirections) {
    for (const ChildFileTail& tail :
         {kNoTail, ChildFileTail{40, 0, 100, 50}, ChildFileTail{40, 41, 8000, 500},
          ChildFileTail{42, 0, 4096, 4096}}) {
        Attach(2, tail);
        const auto size = static_cast<std::int32_t>(seeker_->byteSize);
        for (const std::int32_t from : {0, 1, 8191, 8192, 16383, size - 1, size}) {
            const Place start = PlaceAt(from);
            for (const std::int32_t to : {0, 1, 8191, 8192, 16383, size - 1, size}) {
                EXPECT_EQ(Moved(*seeker_, {start.pageIndex, start.pageOffset},
                                static_cast<std::uint32_t>(to - from)),
                          PlaceAt(to))
                    << from << " to " << to;
            }
        }
    }
}

TEST_F(ChildFileSeekerTest, MovingOutOfTheFileLeadsNowhere) {
    Attach(1, {40, 0, 100, 50});
    EXPECT_EQ(Moved(*seeker_, {0, 0}, ~std::uint32_t{0}), kNowhere);
    EXPECT_EQ(Moved(*seeker_, {1, 150}, 1), kNowhere);
    EXPECT_EQ(Moved(*seeker_, {0, 5}, 0x80000000u), kNowhere);
}

TEST_F(ChildFileSeekerTest, MovingFromAPageMoreThanOnePastTheLastIsRefused) {
    Attach(2, {40, 0, 100, 50});
    EXPECT_FALSE(Moved(*seeker_, {4, 0}, 0).found);
    EXPECT_FALSE(Moved(*seeker_, {~std::uint64_t{0}, 0}, 0).found);
}

TEST_F(ChildFileSeekerTest, MovingFromThePagePastTheLastStartsAfterTheLastEntry) {
    Attach(2, {40, 0, 100, 50});
    EXPECT_EQ(Moved(*seeker_, {3, 0}, 0), PlaceAt(16434));
    EXPECT_EQ(Moved(*seeker_, {3, 0}, static_cast<std::uint32_t>(-50)), PlaceAt(16384));
    Attach(2, {40, 41, 8000, 500});
    EXPECT_EQ(Moved(*seeker_, {4, 0}, 0), PlaceAt(16384 + 308));
    Attach(2, kNoTail);
    EXPECT_EQ(Moved(*seeker_, {2, 0}, 0), (Place{true, 1, 8192}));
    EXPECT_EQ(Moved(*seeker_, {2, 5}, 0), kNowhere);
}

namespace {

class ConstantPlaceChildSeeker : public ChildFileSeeker {
public:
    bool PositionToPage(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                        std::int32_t position) override {
        pageIndex = 5;
        pageOffset = 6;
        asked = position;
        return true;
    }
    std::int32_t asked = 0;
};

}  // namespace

TEST_F(ChildFileSeekerTest, MovePositionCallsPositionToPageOfADerivedSeeker) {
    const Util::RefPtr<ConstantPlaceChildSeeker> seeker(new ConstantPlaceChildSeeker);
    seeker->Attach(allocator_, {7, 50, 0, 0}, {40, 0, 100, 50});
    EXPECT_EQ(Moved(*seeker, {0, 110}, 7), (Place{true, 5, 6}));
    EXPECT_EQ(seeker->asked, 17);
    EXPECT_EQ(Moved(*seeker, {0, 110}, static_cast<std::uint32_t>(-30)), (Place{true, 5, 6}));
    EXPECT_EQ(seeker->asked, -20);
}

// ---- Lifetime -----------------------------------------------------------------------------------

TEST_F(ChildFileSeekerTest, HoldsTheAllocatorUntilItIsClearedOrDies) {
    const auto references = [&] {
        const std::uint32_t count = allocator_->AddRef() - 1;
        allocator_->Release();
        return count;
    };
    EXPECT_EQ(references(), 1u);
    Attach(2, kNoTail);
    EXPECT_EQ(references(), 2u);
    Attach(2, kNoTail);
    EXPECT_EQ(references(), 2u);
    seeker_->Clear();
    EXPECT_EQ(references(), 1u);
    {
        const Util::RefPtr<ChildFileSeeker> other(new ChildFileSeeker);
        other->Attach(allocator_, {7, 8192, 20, 1}, kNoTail);
        EXPECT_EQ(references(), 2u);
    }
    EXPECT_EQ(references(), 1u);
}

TEST_F(ChildFileSeekerTest, IsEmptyAfterClear) {
    Attach(2, {40, 41, 8000, 500});
    seeker_->Clear();
    EXPECT_EQ(seeker_->byteSize, 0u);
    EXPECT_EQ(seeker_->pageCount, 0u);
    EXPECT_EQ(seeker_->pageNumbers, nullptr);
    EXPECT_EQ(seeker_->pageRanges, nullptr);
    EXPECT_EQ(PlaceAt(0), kNowhere);
    EXPECT_EQ(PlaceAt(1), kNowhere);
    EXPECT_EQ(Moved(*seeker_, {0, 0}, 0), kNowhere);
    // The number of entries of the tail, the extent, and the tail.
    EXPECT_EQ((FieldAt<std::array<std::uint64_t, 9>>(seeker_.Get(), 56)),
              (std::array<std::uint64_t, 9>{}));
}

TEST_F(ChildFileSeekerTest, AFailedAttachForgetsTheFileBefore) {
    Attach(2, {40, 41, 8000, 500});
    ExpectCorrupt({7, 8192, 0, 1}, kNoTail);
    EXPECT_EQ(seeker_->pageNumbers, nullptr);
    EXPECT_EQ(seeker_->pageRanges, nullptr);
}

// ---- Layout -------------------------------------------------------------------------------------

TEST(ChildFileRecords, AreFourWordsInOrder) {
    EXPECT_EQ(sizeof(ChildFileExtent), 32u);
    EXPECT_EQ(offsetof(ChildFileExtent, streamId), 0u);
    EXPECT_EQ(offsetof(ChildFileExtent, byteSize), 8u);
    EXPECT_EQ(offsetof(ChildFileExtent, firstPage), 16u);
    EXPECT_EQ(offsetof(ChildFileExtent, wholePageCount), 24u);
    EXPECT_EQ(sizeof(ChildFileTail), 32u);
    EXPECT_EQ(offsetof(ChildFileTail, tailPage), 0u);
    EXPECT_EQ(offsetof(ChildFileTail, followingPage), 8u);
    EXPECT_EQ(offsetof(ChildFileTail, tailOffset), 16u);
    EXPECT_EQ(offsetof(ChildFileTail, tailLength), 24u);
}

TEST_F(ChildFileSeekerTest, KeepsItsStateInOneFixedOrder) {
    static_assert(sizeof(ChildFileSeeker) == 176);
    const ChildFileTail tail = {40, 41, 8000, 500};
    Attach(2, tail);
    const ChildFileSeeker* const seeker = seeker_.Get();
    EXPECT_EQ(FieldAt<IPageAllocator*>(seeker, 48), allocator_.Get());
    EXPECT_EQ(FieldAt<std::uint64_t>(seeker, 56), 2u);  // number of entries of the tail
    const auto extent = FieldAt<ChildFileExtent>(seeker, 64);
    EXPECT_EQ(extent.streamId, 7u);
    EXPECT_EQ(extent.byteSize, 16884u);
    EXPECT_EQ(extent.firstPage, 20u);
    EXPECT_EQ(extent.wholePageCount, 2u);
    const auto kept = FieldAt<ChildFileTail>(seeker, 96);
    EXPECT_EQ(kept.tailPage, 40u);
    EXPECT_EQ(kept.followingPage, 41u);
    EXPECT_EQ(kept.tailOffset, 8000u);
    EXPECT_EQ(kept.tailLength, 500u);
    EXPECT_EQ(FieldAt<std::uint64_t*>(seeker, 128), seeker->pageNumbers);
    EXPECT_EQ(FieldAt<PageRange*>(seeker, 152), seeker->pageRanges);
}

TEST_F(ChildFileSeekerTest, CountsTheEntriesOfItsTail) {
    const auto tailEntries = [&](const ChildFileTail& tail) {
        Attach(2, tail);
        EXPECT_EQ(seeker_->pageCount, 2 + FieldAt<std::uint64_t>(seeker_.Get(), 56));
        return FieldAt<std::uint64_t>(seeker_.Get(), 56);
    };
    EXPECT_EQ(tailEntries(kNoTail), 0u);
    EXPECT_EQ(tailEntries({40, 0, 100, 50}), 1u);
    EXPECT_EQ(tailEntries({40, 41, 8000, 500}), 2u);
    EXPECT_EQ(tailEntries({42, 0, 4096, 4096}), 2u);
}

TEST(ChildFileSeekerClass, HasAttachAfterTheOperationsOfTheSeeker) {
    EXPECT_EQ(VirtualSlot(&ChildFileSeeker::Attach),
              VirtualSlot(&IPagedFileSeeker::LoadPageInfo) + 1);
}

}  // namespace Quorvel::Testing
