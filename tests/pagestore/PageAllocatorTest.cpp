#include "pagestore/PageAllocator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <list>
#include <type_traits>

#include "pagestore/Fakes.h"
#include "quorvel/Exceptions.h"

namespace Quorvel::Testing {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t kMostPages = 0xFFFF6;

// The allocator's fields, in order, after the reference count of its base.
struct AllocatorFields {
    const void* virtualTable;
    std::uint32_t references;
    std::uint64_t highestPage;
    Numbers previousPages;
    Numbers links;
    std::list<std::uint64_t> freeQueue;
};
static_assert(sizeof(PageAllocator) == sizeof(AllocatorFields));

const AllocatorFields& FieldsOf(const PageAllocator& allocator) {
    return *reinterpret_cast<const AllocatorFields*>(&allocator);
}

// The state of an allocator with these links.
Bytes StateOf(const Numbers& links) {
    Bytes state((links.size() + 1) * 8);
    const std::uint64_t count = links.size();
    std::memcpy(state.data(), &count, 8);
    std::memcpy(state.data() + 8, links.data(), links.size() * 8);
    return state;
}

bool Load(PageAllocator& allocator, const Bytes& state) {
    return allocator.LoadState(Util::RefPtr<IDataStream>(new MemoryStream(state)));
}

Bytes Save(const PageAllocator& allocator) {
    const Util::RefPtr<MemoryStream> stream(new MemoryStream(Bytes(allocator.GetStateSize())));
    allocator.SaveState(stream);
    return stream->bytes;
}

// Allocates pages 10 to 10 + count - 1 as one chain.
void AllocateChain(PageAllocator& allocator, std::uint64_t count) {
    std::uint64_t last = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        last = allocator.AllocatePage(last);
    }
}

const Numbers kInvalidNumbers = {0, 1, 9, 0x100000, 0x100001, ~std::uint64_t{0}};

class PageAllocatorTest : public ::testing::Test {
protected:
    const Util::RefPtr<PageAllocator> owner_{new PageAllocator};
    PageAllocator& allocator_ = *owner_;
};

}  // namespace

// ---- Allocating pages ---------------------------------------------------------------------------

TEST_F(PageAllocatorTest, IsEmptyAtFirst) {
    EXPECT_EQ(allocator_.GetStateSize(), 8u);
    EXPECT_FALSE(allocator_.IsPageAllocated(10));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 10u);
}

TEST_F(PageAllocatorTest, AnEmptyAllocatorAllocatesTenElevenTwelveWithoutLinks) {
    for (const std::uint64_t page : Numbers{10, 11, 12}) {
        EXPECT_EQ(allocator_.AllocatePage(0), page);
    }
    for (const std::uint64_t page : Numbers{10, 11, 12}) {
        EXPECT_TRUE(allocator_.IsPageAllocated(page));
        EXPECT_EQ(allocator_.GetNextPage(page), 0u);
    }
    EXPECT_THAT(FieldsOf(allocator_).previousPages, ElementsAre(0, 0, 0));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 12u);
}

TEST_F(PageAllocatorTest, ANewPageBecomesTheSuccessorOfThePreviousOne) {
    ASSERT_EQ(allocator_.AllocatePage(0), 10u);
    EXPECT_EQ(allocator_.AllocatePage(10), 11u);
    EXPECT_EQ(allocator_.GetNextPage(10), 11u);
    EXPECT_EQ(allocator_.GetNextPage(11), 0u);
    EXPECT_THAT(FieldsOf(allocator_).previousPages, ElementsAre(0, 10));
}

TEST_F(PageAllocatorTest, AReusedPageBecomesTheSuccessorOfThePreviousOne) {
    AllocateChain(allocator_, 1);
    allocator_.AllocatePage(0);
    allocator_.FreePage(10);
    EXPECT_EQ(allocator_.AllocatePage(11), 10u);
    EXPECT_EQ(allocator_.GetNextPage(11), 10u);
    EXPECT_EQ(allocator_.GetNextPage(10), 0u);
    EXPECT_THAT(FieldsOf(allocator_).previousPages, ElementsAre(11, 0));
}

TEST_F(PageAllocatorTest, AnInvalidPreviousPageStartsANewChain) {
    std::uint64_t expected = 10;
    for (const std::uint64_t previous : kInvalidNumbers) {
        const std::uint64_t page = allocator_.AllocatePage(previous);
        EXPECT_EQ(page, expected++);
        EXPECT_EQ(FieldsOf(allocator_).previousPages.back(), 0u);
    }
}

TEST_F(PageAllocatorTest, APreviousPageThatHasASuccessorIsRefused) {
    AllocateChain(allocator_, 2);
    EXPECT_THROW(allocator_.AllocatePage(10), InvalidParameterException);
    EXPECT_EQ(allocator_.GetNextPage(10), 11u);
}

TEST_F(PageAllocatorTest, APreviousPageThatIsUnknownIsRefused) {
    AllocateChain(allocator_, 1);
    EXPECT_THROW(allocator_.AllocatePage(12), InvalidParameterException);
    EXPECT_THROW(allocator_.AllocatePage(0xFFFFF), InvalidParameterException);
}

TEST_F(PageAllocatorTest, APreviousPageThatIsFreeIsRefused) {
    allocator_.MarkPageAllocated(12);
    ASSERT_EQ(allocator_.GetNextPage(11), 1u);
    EXPECT_THROW(allocator_.AllocatePage(11), InvalidParameterException);
    EXPECT_EQ(allocator_.GetNextPage(11), 1u);
}

TEST_F(PageAllocatorTest, ARefusedPreviousPageLosesThePageTakenForIt) {
    AllocateChain(allocator_, 2);
    EXPECT_THROW(allocator_.AllocatePage(10), InvalidParameterException);  // a new page
    EXPECT_TRUE(allocator_.IsPageAllocated(12));
    EXPECT_EQ(allocator_.GetNextPage(12), 0u);
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 11u);

    allocator_.MarkPageAllocated(14);
    EXPECT_THROW(allocator_.AllocatePage(10), InvalidParameterException);  // a free page
    EXPECT_TRUE(allocator_.IsPageAllocated(13));
    EXPECT_EQ(allocator_.AllocatePage(0), 15u);
}

TEST_F(PageAllocatorTest, ARefusedPreviousPageIsNotRecordedAsThePredecessorOfAReusedPage) {
    AllocateChain(allocator_, 2);
    allocator_.MarkPageAllocated(13);  // 12 is free now
    EXPECT_THROW(allocator_.AllocatePage(10), InvalidParameterException);
    EXPECT_THAT(FieldsOf(allocator_).previousPages, ElementsAre(0, 10, 0, 0));
    EXPECT_THROW(allocator_.AllocatePage(10), InvalidParameterException);  // a new page
    EXPECT_THAT(FieldsOf(allocator_).previousPages, ElementsAre(0, 10, 0, 0, 10));
}

TEST_F(PageAllocatorTest, APreviousPageWhoseLinkIsNotAPageNumberIsRefused) {
    Load(allocator_, StateOf({2, 0x100000}));
    EXPECT_THROW(allocator_.AllocatePage(10), InvalidParameterException);
    EXPECT_THROW(allocator_.AllocatePage(11), InvalidParameterException);
}

// No caller does this. The page is taken first, so it is in use and has no successor when it is
// linked.
TEST_F(PageAllocatorTest, ThePageTakenMayBeThePreviousPageItself) {
    EXPECT_EQ(allocator_.AllocatePage(10), 10u);
    EXPECT_EQ(allocator_.GetNextPage(10), 10u);
    AllocateChain(allocator_, 2);
    allocator_.FreePage(11);
    EXPECT_EQ(allocator_.AllocatePage(11), 11u);
    EXPECT_EQ(allocator_.GetNextPage(11), 11u);
}

TEST_F(PageAllocatorTest, ThePageFreedFirstIsReusedFirst) {
    AllocateChain(allocator_, 4);
    allocator_.FreePage(12);
    allocator_.FreePage(11);
    EXPECT_EQ(allocator_.AllocatePage(0), 12u);
    EXPECT_EQ(allocator_.AllocatePage(0), 11u);
    EXPECT_EQ(allocator_.AllocatePage(0), 14u);
}

TEST_F(PageAllocatorTest, TheHighestPageStaysWhenALowerOneIsReused) {
    AllocateChain(allocator_, 4);
    allocator_.FreePage(10);
    allocator_.AllocatePage(0);
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 13u);
}

TEST_F(PageAllocatorTest, TheHighestPageRisesWithAFreePageThatIsTakenOrMarked) {
    Load(allocator_, StateOf({0, 0, 1, 1, 1}));
    EXPECT_EQ(allocator_.AllocatePage(0), 12u);
    EXPECT_EQ(allocator_.HighestPage(), 12u);
    EXPECT_TRUE(allocator_.MarkPageAllocated(14));
    EXPECT_EQ(allocator_.HighestPage(), 14u);
}

TEST_F(PageAllocatorTest, TheHighestPageRisesEvenIfThePageIsAlreadyInUse) {
    AllocateChain(allocator_, 2);
    EXPECT_THROW(allocator_.AllocatePage(10), InvalidParameterException);  // 12 is lost
    EXPECT_EQ(allocator_.HighestPage(), 11u);
    EXPECT_FALSE(allocator_.MarkPageAllocated(12));
    EXPECT_EQ(allocator_.HighestPage(), 12u);
}

TEST_F(PageAllocatorTest, ThrowsOutOfMemoryWhenNoNumberIsLeft) {
    Load(allocator_, StateOf(Numbers(kMostPages, 0)));
    EXPECT_THROW(allocator_.AllocatePage(0), OutOfMemoryException);
    EXPECT_EQ(allocator_.GetStateSize(), 8 * kMostPages + 8);
}

TEST_F(PageAllocatorTest, TheLastNumberIsAllocatedBeforeItThrowsOutOfMemory) {
    Load(allocator_, StateOf(Numbers(kMostPages - 1, 0)));
    EXPECT_EQ(allocator_.AllocatePage(0), 0xFFFFFu);
    EXPECT_THROW(allocator_.AllocatePage(0), OutOfMemoryException);
    allocator_.FreePage(500);
    EXPECT_EQ(allocator_.AllocatePage(0), 500u);
}

// ---- Freeing pages ------------------------------------------------------------------------------

TEST_F(PageAllocatorTest, AFreedPageIsFreeAndItsSuccessorHasNoPredecessor) {
    AllocateChain(allocator_, 3);
    allocator_.FreePage(10);
    EXPECT_FALSE(allocator_.IsPageAllocated(10));
    EXPECT_EQ(allocator_.GetNextPage(10), 1u);
    EXPECT_EQ(allocator_.GetNextPage(11), 12u);
    EXPECT_THAT(FieldsOf(allocator_).previousPages, ElementsAre(0, 0, 11));
}

TEST_F(PageAllocatorTest, ThePredecessorOfAFreedPageStillLinksToIt) {
    AllocateChain(allocator_, 3);
    allocator_.FreePage(11);
    EXPECT_EQ(allocator_.GetNextPage(10), 11u);
    EXPECT_THAT(FieldsOf(allocator_).previousPages, ElementsAre(0, 0, 0));
}

TEST_F(PageAllocatorTest, FreeingAPageThatIsUnknownIsRefused) {
    AllocateChain(allocator_, 2);
    EXPECT_THROW(allocator_.FreePage(12), InvalidParameterException);
    EXPECT_THROW(allocator_.FreePage(0xFFFFF), InvalidParameterException);
    EXPECT_EQ(allocator_.AllocatePage(0), 12u);
}

TEST_F(PageAllocatorTest, APageFreedTwiceIsReusedOnce) {
    AllocateChain(allocator_, 2);
    allocator_.FreePage(10);
    allocator_.FreePage(10);
    EXPECT_THAT(FieldsOf(allocator_).freeQueue, ElementsAre(10, 10));
    EXPECT_EQ(allocator_.AllocatePage(0), 10u);
    EXPECT_EQ(allocator_.AllocatePage(0), 12u);
}

// ---- Marking pages ------------------------------------------------------------------------------

TEST_F(PageAllocatorTest, MarkingAPageFreesThoseBelowItInOrder) {
    EXPECT_TRUE(allocator_.MarkPageAllocated(15));
    for (const std::uint64_t page : Numbers{10, 11, 12, 13, 14}) {
        EXPECT_FALSE(allocator_.IsPageAllocated(page));
        EXPECT_EQ(allocator_.GetNextPage(page), 1u);
    }
    EXPECT_TRUE(allocator_.IsPageAllocated(15));
    EXPECT_EQ(allocator_.GetNextPage(15), 0u);
    EXPECT_THAT(FieldsOf(allocator_).previousPages, ElementsAre(0, 0, 0, 0, 0, 0));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 15u);
    for (const std::uint64_t page : Numbers{10, 11, 12, 13, 14, 16}) {
        EXPECT_EQ(allocator_.AllocatePage(0), page);
    }
}

TEST_F(PageAllocatorTest, MarkingAPageThatIsInUseReturnsFalse) {
    EXPECT_TRUE(allocator_.MarkPageAllocated(15));
    EXPECT_FALSE(allocator_.MarkPageAllocated(15));
}

TEST_F(PageAllocatorTest, MarkingTheNextNewPageFreesNoOther) {
    AllocateChain(allocator_, 2);
    EXPECT_TRUE(allocator_.MarkPageAllocated(12));
    EXPECT_THAT(FieldsOf(allocator_).freeQueue, IsEmpty());
    EXPECT_EQ(allocator_.AllocatePage(0), 13u);
}

TEST_F(PageAllocatorTest, APageThatWasMarkedAfterItWasFreedIsSkippedInTheQueue) {
    AllocateChain(allocator_, 5);
    for (const std::uint64_t page : Numbers{10, 11, 12}) {
        allocator_.FreePage(page);
    }
    EXPECT_TRUE(allocator_.MarkPageAllocated(10));
    EXPECT_TRUE(allocator_.MarkPageAllocated(11));
    EXPECT_EQ(FieldsOf(allocator_).freeQueue.size(), 3u);
    EXPECT_EQ(allocator_.AllocatePage(0), 12u);
}

TEST_F(PageAllocatorTest, AQueueOfOnlyStaleEntriesLeadsToANewPage) {
    AllocateChain(allocator_, 3);
    allocator_.FreePage(10);
    allocator_.FreePage(12);
    allocator_.MarkPageAllocated(10);
    allocator_.MarkPageAllocated(12);
    EXPECT_EQ(allocator_.AllocatePage(0), 13u);
    EXPECT_THAT(FieldsOf(allocator_).freeQueue, IsEmpty());
}

TEST_F(PageAllocatorTest, MarkingTheHighestPageUsesUpEveryNumber) {
    EXPECT_TRUE(allocator_.MarkPageAllocated(0xFFFFF));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 0xFFFFFu);
    EXPECT_EQ(allocator_.GetStateSize(), 8 * kMostPages + 8);
    EXPECT_EQ(allocator_.AllocatePage(0), 10u);
}

// ---- Queries ------------------------------------------------------------------------------------

TEST_F(PageAllocatorTest, APageBeyondTheTablesIsFree) {
    AllocateChain(allocator_, 2);
    for (const std::uint64_t page : Numbers{12, 5000, 0xFFFFF}) {
        EXPECT_FALSE(allocator_.IsPageAllocated(page));
        EXPECT_EQ(allocator_.GetNextPage(page), 1u);
    }
}

TEST_F(PageAllocatorTest, InvalidNumbersAreRefused) {
    AllocateChain(allocator_, 2);
    for (const std::uint64_t page : kInvalidNumbers) {
        EXPECT_THROW(allocator_.FreePage(page), InvalidParameterException) << page;
        EXPECT_THROW(allocator_.MarkPageAllocated(page), InvalidParameterException) << page;
        EXPECT_THROW(allocator_.IsPageAllocated(page), InvalidParameterException) << page;
        EXPECT_THROW(allocator_.GetNextPage(page), InvalidParameterException) << page;
    }
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 11u);
    EXPECT_EQ(allocator_.GetStateSize(), 24u);
}

TEST_F(PageAllocatorTest, ClearForgetsEveryPage) {
    AllocateChain(allocator_, 5);
    allocator_.FreePage(12);
    allocator_.Clear();
    EXPECT_EQ(allocator_.GetStateSize(), 8u);
    EXPECT_FALSE(allocator_.IsPageAllocated(10));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 10u);
    EXPECT_THAT(FieldsOf(allocator_).previousPages, IsEmpty());
    EXPECT_THAT(FieldsOf(allocator_).freeQueue, IsEmpty());
    EXPECT_EQ(allocator_.AllocatePage(0), 10u);
}

// ---- A derived allocator ------------------------------------------------------------------------

namespace {

class ReservingAllocator : public PageAllocator {
public:
    bool IsPageAllocated(std::uint64_t page) override {
        return page == reserved || PageAllocator::IsPageAllocated(page);
    }
    std::uint64_t reserved = 0;
};

}  // namespace

TEST(DerivedPageAllocator, DecidesWhichFreedPagesAreReused) {
    const Util::RefPtr<ReservingAllocator> allocator(new ReservingAllocator);
    AllocateChain(*allocator, 3);
    allocator->FreePage(10);
    allocator->FreePage(11);
    allocator->reserved = 10;
    EXPECT_EQ(allocator->AllocatePage(0), 11u);
    EXPECT_EQ(allocator->AllocatePage(0), 13u);
}

TEST(IPageAllocatorInterface, HasItsOperationsInOrderAfterTheReferenceCounting) {
    const std::size_t first = VirtualSlot(&IPageAllocator::AddRef) + 3;
    EXPECT_EQ(VirtualSlot(&IPageAllocator::AllocatePage), first);
    EXPECT_EQ(VirtualSlot(&IPageAllocator::FreePage), first + 1);
    EXPECT_EQ(VirtualSlot(&IPageAllocator::MarkPageAllocated), first + 2);
    EXPECT_EQ(VirtualSlot(&IPageAllocator::IsPageAllocated), first + 3);
    EXPECT_EQ(VirtualSlot(&IPageAllocator::GetNextPage), first + 4);
    static_assert(std::is_base_of_v<Util::ARefObject, IPageAllocator>);
}

// ---- Saving -------------------------------------------------------------------------------------

TEST_F(PageAllocatorTest, TheStateIsTheNumberOfLinksAndTheLinks) {
    AllocateChain(allocator_, 2);
    allocator_.MarkPageAllocated(0x10F);
    allocator_.AllocatePage(11);  // 12
    allocator_.AllocatePage(0x10F);
    ASSERT_EQ(allocator_.GetStateSize(), 8u * 0x106 + 8);
    const Bytes state = Save(allocator_);
    EXPECT_EQ(Slice(state, 0, 48), (Bytes{
                                       0x06, 0x01, 0, 0, 0, 0, 0, 0,  // links
                                       11,   0,    0, 0, 0, 0, 0, 0,  // 10: 11 follows
                                       12,   0,    0, 0, 0, 0, 0, 0,  // 11: 12 follows
                                       0,    0,    0, 0, 0, 0, 0, 0,  // 12: the last of its chain
                                       0,    0,    0, 0, 0, 0, 0, 0,  // 13: the last of its chain
                                       1,    0,    0, 0, 0, 0, 0, 0,  // 14: free
                                   }));
    EXPECT_EQ(Slice(state, 8 + (0x10F - 10) * 8, 8), (Bytes{13, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(PageAllocatorTest, ALinkIsSavedWithItsLowestByteFirst) {
    allocator_.MarkPageAllocated(0xABCDE);
    allocator_.MarkPageAllocated(10);
    for (std::uint64_t page = 11; page < 0xABCDE; ++page) {
        allocator_.MarkPageAllocated(page);
    }
    ASSERT_EQ(allocator_.AllocatePage(10), 0xABCDFu);
    EXPECT_EQ(Slice(Save(allocator_), 8, 8), (Bytes{0xDF, 0xBC, 0x0A, 0, 0, 0, 0, 0}));
}

TEST_F(PageAllocatorTest, AnEmptyAllocatorSavesOnlyItsCount) {
    const Util::RefPtr<MemoryStream> stream(new MemoryStream(Bytes(100, 0xEE)));
    EXPECT_TRUE(allocator_.SaveState(stream));
    EXPECT_EQ(Slice(stream->bytes, 0, 9), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0xEE}));
    EXPECT_THAT(stream->transfers, ElementsAre(8));
}

TEST_F(PageAllocatorTest, TheStateIsSavedInTwoTransfers) {
    AllocateChain(allocator_, 1000);
    const Util::RefPtr<MemoryStream> stream(new MemoryStream(Bytes(allocator_.GetStateSize())));
    EXPECT_TRUE(allocator_.SaveState(stream));
    EXPECT_THAT(stream->transfers, ElementsAre(8, 8000));
}

TEST_F(PageAllocatorTest, AStreamTooShortForTheStateThrowsFileIOWithoutAnErrorNumber) {
    AllocateChain(allocator_, 3);
    for (const std::uint64_t room : Numbers{0, 7, 8, 31}) {
        const Util::RefPtr<IDataStream> stream(new MemoryStream(Bytes(room)));
        EXPECT_EQ(FileErrorOf([&] { allocator_.SaveState(stream); }), 0) << room;
    }
}

// ---- Loading ------------------------------------------------------------------------------------

TEST_F(PageAllocatorTest, AStateIsLoadedByteForByte) {
    EXPECT_TRUE(Load(allocator_, {
                                     5,  0, 0, 0, 0, 0, 0, 0,  // links
                                     12, 0, 0, 0, 0, 0, 0, 0,  // 10: 12 follows
                                     1,  0, 0, 0, 0, 0, 0, 0,  // 11: free
                                     0,  0, 0, 0, 0, 0, 0, 0,  // 12: the last of its chain
                                     1,  0, 0, 0, 0, 0, 0, 0,  // 13: free
                                     0,  0, 0, 0, 0, 0, 0, 0,  // 14: a chain of one
                                 }));
    EXPECT_EQ(allocator_.GetNextPage(10), 12u);
    EXPECT_EQ(allocator_.GetNextPage(11), 1u);
    EXPECT_EQ(allocator_.GetNextPage(12), 0u);
    EXPECT_EQ(allocator_.GetNextPage(13), 1u);
    EXPECT_EQ(allocator_.GetNextPage(14), 0u);
    EXPECT_THAT(FieldsOf(allocator_).previousPages, ElementsAre(0, 0, 10, 0, 0));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 14u);
    EXPECT_EQ(allocator_.AllocatePage(0), 11u);
    EXPECT_EQ(allocator_.AllocatePage(0), 13u);
    EXPECT_EQ(allocator_.AllocatePage(0), 15u);
}

TEST_F(PageAllocatorTest, LoadingASavedStateRestoresIt) {
    AllocateChain(allocator_, 20);
    allocator_.FreePage(10);
    allocator_.FreePage(11);
    allocator_.AllocatePage(29);
    const Bytes state = Save(allocator_);
    const Util::RefPtr<PageAllocator> other(new PageAllocator);
    EXPECT_TRUE(Load(*other, state));
    EXPECT_EQ(Save(*other), state);
}

TEST_F(PageAllocatorTest, LoadingReplacesTheEarlierState) {
    AllocateChain(allocator_, 6);
    allocator_.FreePage(10);
    EXPECT_TRUE(Load(allocator_, StateOf({0, 0})));
    EXPECT_FALSE(allocator_.IsPageAllocated(12));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 11u);
    EXPECT_EQ(allocator_.AllocatePage(0), 12u);
}

TEST_F(PageAllocatorTest, AnEmptyStateLeadsToAnEmptyAllocator) {
    AllocateChain(allocator_, 3);
    allocator_.FreePage(11);
    const Util::RefPtr<MemoryStream> stream(new MemoryStream(Bytes(8)));
    EXPECT_TRUE(allocator_.LoadState(stream));
    EXPECT_THAT(stream->transfers, ElementsAre(8));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 10u);
    EXPECT_THAT(FieldsOf(allocator_).freeQueue, IsEmpty());
    EXPECT_EQ(allocator_.AllocatePage(0), 10u);
}

TEST_F(PageAllocatorTest, FreePagesDoNotCountForTheHighestPage) {
    Load(allocator_, StateOf({0, 0, 1, 1}));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 11u);
    Load(allocator_, StateOf({1, 1}));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 10u);
    EXPECT_THAT(FieldsOf(allocator_).freeQueue, ElementsAre(10, 11));
}

TEST_F(PageAllocatorTest, TheStateIsLoadedInTwoTransfers) {
    const Util::RefPtr<MemoryStream> stream(new MemoryStream(StateOf(Numbers(1000, 0))));
    EXPECT_TRUE(allocator_.LoadState(stream));
    EXPECT_THAT(stream->transfers, ElementsAre(8, 8000));
}

TEST_F(PageAllocatorTest, TheStateMayBeAnywhereInItsStream) {
    Bytes content(24, 0xEE);
    const Bytes state = StateOf({11, 0});
    content.insert(content.begin() + 16, state.begin(), state.end());
    const Util::RefPtr<MemoryStream> stream(new MemoryStream(content));
    stream->position = 16;
    EXPECT_TRUE(allocator_.LoadState(stream));
    EXPECT_EQ(allocator_.GetNextPage(10), 11u);
    EXPECT_EQ(stream->position, 40u);
}

namespace {

// Like a head file whose header counts fewer bytes than its pages hold.
class UnderstatedStream : public MemoryStream {
public:
    using MemoryStream::MemoryStream;
    std::uint64_t GetSize() override { return 8; }
};

}  // namespace

TEST_F(PageAllocatorTest, OnlyTheReadableBytesDecideIfTheStateIsWhole) {
    const Util::RefPtr<IDataStream> stream(new UnderstatedStream(StateOf({11, 0})));
    EXPECT_TRUE(allocator_.LoadState(stream));
    EXPECT_EQ(allocator_.GetNextPage(10), 11u);
}

TEST_F(PageAllocatorTest, AStateThatCannotBeReadClearsTheEarlierOne) {
    AllocateChain(allocator_, 3);
    EXPECT_THROW(Load(allocator_, {}), FileDataCorruptException);
    EXPECT_EQ(allocator_.GetStateSize(), 8u);
    EXPECT_EQ(allocator_.HighestPage(), 10u);
}

TEST_F(PageAllocatorTest, TheTablesHaveEqualLengthsEvenAfterAShortRead) {
    EXPECT_THROW(Load(allocator_, Slice(StateOf({11, 12, 0}), 0, 16)), FileDataCorruptException);
    EXPECT_EQ(FieldsOf(allocator_).links.size(), 3u);
    EXPECT_EQ(FieldsOf(allocator_).previousPages.size(), 3u);
}

TEST_F(PageAllocatorTest, AStreamThatEndsEarlyIsCorrupt) {
    const Bytes state = StateOf({11, 12, 0});
    for (const std::uint64_t length : Numbers{0, 7, 8, 16, 31}) {
        EXPECT_THROW(Load(allocator_, Slice(state, 0, length)), FileDataCorruptException) << length;
    }
}

TEST_F(PageAllocatorTest, ACountAboveTheNumberOfPagesIsCorrupt) {
    EXPECT_TRUE(Load(allocator_, StateOf(Numbers(kMostPages, 1))));
    EXPECT_THROW(Load(allocator_, StateOf(Numbers(kMostPages + 1, 1))), FileDataCorruptException);
    EXPECT_THROW(Load(allocator_, Bytes(16, 0xFF)), FileDataCorruptException);
}

TEST_F(PageAllocatorTest, APageThatFollowsTwoOthersIsCorrupt) {
    EXPECT_THROW(Load(allocator_, StateOf({12, 12, 0})), FileDataCorruptException);
    EXPECT_THROW(Load(allocator_, StateOf({0, 10, 10})), FileDataCorruptException);
}

TEST_F(PageAllocatorTest, ASuccessorBeyondTheTablesIsCorrupt) {
    EXPECT_TRUE(Load(allocator_, StateOf({12, 0, 0})));
    EXPECT_THROW(Load(allocator_, StateOf({13, 0, 0})), FileDataCorruptException);
    EXPECT_THROW(Load(allocator_, StateOf({0xFFFFF})), FileDataCorruptException);
}

TEST_F(PageAllocatorTest, ALinkThatIsNotAPageNumberMeansInUseWithoutSuccessor) {
    EXPECT_TRUE(Load(allocator_, StateOf({2, 9, 9, 0x100000, 0x100000, ~std::uint64_t{0}})));
    for (const std::uint64_t page : Numbers{10, 11, 12, 13, 14, 15}) {
        EXPECT_TRUE(allocator_.IsPageAllocated(page));
    }
    EXPECT_EQ(allocator_.GetNextPage(10), 2u);
    EXPECT_EQ(allocator_.GetNextPage(13), 0x100000u);
    EXPECT_THAT(FieldsOf(allocator_).previousPages, ElementsAre(0, 0, 0, 0, 0, 0));
    EXPECT_EQ(FieldsOf(allocator_).highestPage, 15u);
    allocator_.FreePage(10);
    EXPECT_EQ(allocator_.AllocatePage(0), 10u);
}

TEST_F(PageAllocatorTest, APageMayFollowItself) {
    EXPECT_TRUE(Load(allocator_, StateOf({10})));
    EXPECT_EQ(allocator_.GetNextPage(10), 10u);
}

TEST_F(PageAllocatorTest, AFreePageMayBeASuccessor) {
    EXPECT_TRUE(Load(allocator_, StateOf({11, 1})));
    EXPECT_EQ(allocator_.GetNextPage(10), 11u);
    EXPECT_EQ(allocator_.AllocatePage(0), 11u);
}

}  // namespace Quorvel::Testing
