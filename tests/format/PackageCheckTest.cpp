#include "format/PackageCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>

#include "format/PackageWriter.h"
#include "format/TestData.h"

namespace Quorvel::Format {
namespace {

// A sound package. Stream 0 has two whole pages and a tail, 1 and 2 have only tails, 3 has one
// whole page. The tails of streams 0, 1 and 2 begin at 0, 5 and 5005 in the only tail block and use
// 9005 bytes of it. The header data makes the head file three pages long.
PackageImage SoundPackage() {
    PackageLayout layout;
    layout.freePages = 1;
    return LayOutPackage({{0, Pattern(2 * kPageSize + 5, 0)},
                          {1, Pattern(5000, 1)},
                          {2, Pattern(4000, 2)},
                          {3, Pattern(kPageSize, 3)}},
                         Pattern(20000, 9), layout);
}

// Damage of one kind, done to the tables or to the finished file's bytes.
struct Damage {
    std::string name;
    std::string reportedAs;  // part of the checker's line
    std::function<void(PackageImage&)> toTables;
    std::function<void(Bytes&, const PackageImage&)> toBytes = {};
};

void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.name;
}

class PackageCheckDamage : public testing::TestWithParam<Damage> {};

TEST_P(PackageCheckDamage, IsReported) {
    PackageImage image = SoundPackage();
    if (GetParam().toTables) { GetParam().toTables(image); }
    Bytes file = EncodePackage(image);
    if (GetParam().toBytes) { GetParam().toBytes(file, image); }

    EXPECT_THAT(CheckPackage(file), testing::Contains(testing::HasSubstr(GetParam().reportedAs)));
}

std::uint64_t& Link(PackageImage& image, std::uint64_t page) {
    return image.links[static_cast<std::size_t>(page - kFirstPage)];
}

std::uint64_t FreePageOf(const PackageImage& image) {
    std::uint64_t page = kFirstPage;
    while (image.Link(page) != kFreePage) {
        ++page;
    }
    return page;
}

// Overwrites the field at an offset in the head file's index-th page.
Damage HeadField(const std::string& name, const std::string& reportedAs, std::size_t index,
                 std::size_t offset, std::uint64_t value) {
    return {name, reportedAs, {}, [=](Bytes& file, const PackageImage& image) {
                StoreInteger(file, PageOffset(image.headPages[index].number) + offset, 8, value);
            }};
}

std::vector<Damage> HeadFileDamages() {
    return {
        HeadField("NoHeadPages", "the head file has 0 pages", 0, 0, 0),
        HeadField("TooManyHeadPages", "the head file has 1048567 pages", 0, 0, kPageCountLimit + 1),
        HeadField("FewerHeadPagesThanTheSizeNeeds", "the head file's size is 20520", 0, 0, 2),
        HeadField("MoreHeadPagesThanTheChainHas", "head page 0 has an invalid number", 0, 0, 4),
        HeadField("HeadSizeBeyondItsPages", "the head file's size is 24577", 0, 8, 3 * 8192 + 1),
        HeadField("HeadSizeOffByOne", "the head file claims 20521 bytes", 0, 8, 20521),
        HeadField("FirstHeadPageWithoutData", "data ends at 32", 0, 24, 32),
        HeadField("FirstHeadPageNotFull", "neither full nor last", 0, 24, 8191),
        HeadField("DataBeyondThePage", "data ends at 8193", 0, 24, 8193),
        HeadField("MiddleHeadPageNotFull", "neither full nor last", 1, 8, 8191),
        HeadField("LastHeadPageCutShort", "the state ends early", 2, 8, 17),
        HeadField("LastHeadPageWithMoreThanTheState", "its pages hold", 2, 8, 8192),
        HeadField("HeadChainLoops", "head page 10 appears twice", 1, 0, 10),
        HeadField("HeadChainEndsEarly", "head page 0 has an invalid number", 1, 0, 0),
        HeadField("HeadChainToABadPageNumber", "head page 9 has an invalid number", 0, 16, 9),
        HeadField("HeadChainLeavesTheFile", "past the end of the file", 0, 16, 500),
        {"MoreHeadPagesThanTheStateNeeds",
         "claims 4 pages; its state takes up 3",
         {},
         [](Bytes& file, const PackageImage& image) {
             const std::size_t third = PageOffset(image.headPages[2].number);
             const std::size_t fourth = PageOffset(FreePageOf(image));
             StoreInteger(file, 0, 8, 4);
             StoreInteger(file, third, 8, FreePageOf(image));
             StoreInteger(file, third + 8, 8, kPageSize);
             StoreInteger(file, fourth, 8, 0);
             StoreInteger(file, fourth + 8, 8, 17);
         }},
        {"LastHeadPageNamesANextPage",
         "is the last, but names page",
         {},
         [](Bytes& file, const PackageImage& image) {
             const std::size_t third = PageOffset(image.headPages[2].number);
             StoreInteger(file, third, 8, FreePageOf(image));
             StoreInteger(file, third + 8, 8, kPageSize);
         }},
        {"HeadLinksDifferFromThePages", "its link is 0",
         [](PackageImage& image) { Link(image, kFirstPage) = kChainEnd; }},
        {"EmptyFile",
         "the file has no first page",
         {},
         [](Bytes& file, const PackageImage&) { file.clear(); }},
        {"DataPagePastTheEnd", "lies past the end of the file",
         [](PackageImage& image) {
             // Moves stream 3's page past the end of the file.
             const std::uint64_t end = image.file.size() / kPageSize + kFirstPage;
             Link(image, image.streams[3].firstPage) = kFreePage;
             image.streams[3].firstPage = end;
             image.links.push_back(kChainEnd);
         }},
    };
}

std::vector<Damage> LinkDamages() {
    return {
        {"LinkTableTooLong",
         "the link table has 1048567 entries",
         {},
         [](Bytes& file, const PackageImage&) { StoreInteger(file, 32, 8, kPageCountLimit + 1); }},
        {"SuccessorOfTwo", "follows two pages",
         [](PackageImage& image) {
             Link(image, image.streams[3].firstPage) = image.Link(image.streams[0].firstPage);
         }},
        {"SuccessorBeyondTheTable", "is not in the table",
         [](PackageImage& image) {
             Link(image, image.streams[3].firstPage) = image.links.size() + kFirstPage;
         }},
        {"SuccessorFree", "links to the free page",
         [](PackageImage& image) { Link(image, image.streams[3].firstPage) = FreePageOf(image); }},
        {"LinkWithoutMeaning", "has the link 5",
         [](PackageImage& image) { Link(image, FreePageOf(image)) = 5; }},
        {"LostPage", "is in use, but belongs to nothing",
         [](PackageImage& image) { Link(image, FreePageOf(image)) = kChainEnd; }},
        {"PageInUseMarkedFree", "of stream 3 is free",
         [](PackageImage& image) { Link(image, image.streams[3].firstPage) = kFreePage; }},
        {"HeadPageMarkedFree", "of the head file is free",
         [](PackageImage& image) { Link(image, image.headPages.back().number) = kFreePage; }},
        {"TailBlockPageMarkedFree", "of tail block 0 is free",
         [](PackageImage& image) { Link(image, image.blocks[0].pages[7]) = kFreePage; }},
    };
}

std::vector<Damage> DirectoryDamages() {
    return {
        {"DuplicateStream", "stream 0 appears twice",
         [](PackageImage& image) { image.streams[1].id = 0; }},
        {"StreamIdTooHigh", "stream 16777216's id is too high",
         [](PackageImage& image) { image.streams[3].id = kHighestId + 1; }},
        {"TooManyWholePages", "has 1048567 whole pages",
         [](PackageImage& image) { image.streams[3].pageCount = kPageCountLimit + 1; }},
        {"WholePagesDoNotMatchTheSize", "stream 0 of 16389 bytes has 1 whole pages",
         [](PackageImage& image) { image.streams[0].pageCount = 1; }},
        {"FirstPageWithoutWholePages", "has 0 whole pages and the first page 11",
         [](PackageImage& image) { image.streams[1].firstPage = 11; }},
        {"WholePagesWithoutFirstPage", "has 1 whole pages and the first page 0",
         [](PackageImage& image) { image.streams[3].firstPage = 0; }},
        {"ChainTooShort", "stream 0's chain has 1 pages instead of 2",
         [](PackageImage& image) { Link(image, image.streams[0].firstPage) = kChainEnd; }},
        {"ChainDoesNotEnd", "stream 3's chain does not end",
         [](PackageImage& image) {
             const std::uint64_t free = FreePageOf(image);
             Link(image, free) = kChainEnd;
             Link(image, image.streams[3].firstPage) = free;
         }},
        {"PageOfTwoStreams", "belongs to stream 0 and to stream 3",
         [](PackageImage& image) { image.streams[3].firstPage = image.streams[0].firstPage; }},
        {"PageOfAStreamAndTheHeadFile", "belongs to the head file and to stream 3",
         [](PackageImage& image) { image.streams[3].firstPage = kFirstPage; }},
        {"PageOfAStreamAndATailBlock", "belongs to stream 3 and to tail block 0",
         [](PackageImage& image) { image.streams[3].firstPage = image.blocks[0].pages[7]; }},
    };
}

std::vector<Damage> TailDamages() {
    return {
        {"DuplicateTailBlock", "tail block 0 appears twice",
         [](PackageImage& image) {
             image.blocks.push_back(image.blocks[0]);
             image.blocks.back().streams.clear();
         }},
        {"TailBlockIdTooHigh", "tail block 2097152's id is too high",
         [](PackageImage& image) { image.blocks[0].id = kHighestId / 8 + 1; }},
        {"TailBlockPageOutOfRange", "tail block 0 has a page 1048576",
         [](PackageImage& image) { image.blocks[0].pages[3] = kPageNumberEnd; }},
        {"TailBlockPagesOutOfOrder", "does not follow its page",
         [](PackageImage& image) {
             std::swap(image.blocks[0].pages[2], image.blocks[0].pages[3]);
         }},
        {"TooManyFreeBytes", "tail block 0 has 65537 bytes free",
         [](PackageImage& image) { image.blocks[0].freeBytes = kTailBlockSize + 1; }},
        {"FreeBytesOffByOne", "has used 9005 bytes and has 56530 free",
         [](PackageImage& image) { --image.blocks[0].freeBytes; }},
        {"ListNamesAStreamWithoutFragment", "which has no fragment in it",
         [](PackageImage& image) { image.blocks[0].streams[2] = 3; }},
        {"FragmentNotListed", "tail block 0 lists stream 2 0 times",
         [](PackageImage& image) { image.blocks[0].streams.pop_back(); }},
        {"FragmentListedTwice", "tail block 0 lists stream 1 2 times",
         [](PackageImage& image) { image.blocks[0].streams.push_back(1); }},
        {"IndexDiffersFromTheList", "lists stream 1 as 1; its fragment says 2",
         [](PackageImage& image) { image.fragments[1].index = 2; }},
        {"GapBetweenFragments", "has used 5005 bytes; stream 2's fragment begins at 5006",
         [](PackageImage& image) { ++image.fragments[2].offset; }},
        {"FragmentsOverlap", "has used 5005 bytes; stream 2's fragment begins at 5004",
         [](PackageImage& image) { --image.fragments[2].offset; }},
        {"FragmentInAMissingBlock", "lies in tail block 1, which is missing",
         [](PackageImage& image) { image.fragments[0].blockId = 1; }},
        {"DuplicateFragment", "stream 1's fragment appears twice",
         [](PackageImage& image) { image.fragments[2].streamId = 1; }},
        {"FragmentWithoutStream", "there is a fragment of stream 9, but no such stream",
         [](PackageImage& image) { image.fragments[2].streamId = 9; }},
        {"FragmentBeginsOutsideTheBlock", "stream 2's fragment begins at 65536",
         [](PackageImage& image) { image.fragments[2].offset = kTailBlockSize; }},
        {"FragmentOfAWholePage", "stream 2's fragment has 8192 bytes",
         [](PackageImage& image) { image.fragments[2].length = kPageSize; }},
        {"FragmentIndexTooHigh", "stream 2's fragment has index 16777215",
         [](PackageImage& image) { image.fragments[2].index = kHighestId; }},
        {"FragmentLongerThanTheStreamsTail", "stream 2 of 4000 bytes has a fragment of 4001",
         [](PackageImage& image) { ++image.fragments[2].length; }},
        {"EmptyFragment", "stream 2 has an empty fragment",
         [](PackageImage& image) { image.fragments[2].length = 0; }},
        {"TailWithoutFragment", "stream 2 of 4000 bytes has a fragment of 0",
         [](PackageImage& image) { image.fragments.pop_back(); }},
        {"HeaderDataLongerThanTheHeadFile",
         "the state ends early",
         {},
         [](Bytes& file, const PackageImage& image) {
             const std::uint64_t at =
                 EncodeState(image).size() - image.headerData.size() - 8 + kFirstHeadPageHeader;
             StoreInteger(file, static_cast<std::size_t>(at), 8, ~std::uint64_t{0});
         }},
    };
}

std::string DamageName(const testing::TestParamInfo<Damage>& instance) {
    return instance.param.name;
}

INSTANTIATE_TEST_SUITE_P(HeadFile, PackageCheckDamage, testing::ValuesIn(HeadFileDamages()),
                         DamageName);
INSTANTIATE_TEST_SUITE_P(Links, PackageCheckDamage, testing::ValuesIn(LinkDamages()), DamageName);
INSTANTIATE_TEST_SUITE_P(Directory, PackageCheckDamage, testing::ValuesIn(DirectoryDamages()),
                         DamageName);
INSTANTIATE_TEST_SUITE_P(Tails, PackageCheckDamage, testing::ValuesIn(TailDamages()), DamageName);

TEST(PackageCheck, ASoundPackageHasNoProblems) {
    EXPECT_EQ(Joined(CheckPackage(EncodePackage(SoundPackage()))), "");
}

TEST(PackageCheck, TheStreamLimitBoundsStreamsAndTailBlocks) {
    std::map<std::uint64_t, Bytes> streams;
    for (std::uint64_t id = 0; id < 16; ++id) {
        streams[id] = Pattern(100, id);
    }
    PackageLayout layout;
    layout.emptyBlocks = 1;
    const Bytes file = WritePackage(streams, {}, layout);

    EXPECT_EQ(Joined(CheckPackage(file, 16)), "");
    EXPECT_EQ(Joined(CheckPackage(file, 15)), "no intact package: there are 16 streams\n");

    layout.emptyBlocks = 2;
    EXPECT_EQ(Joined(CheckPackage(WritePackage(streams, {}, layout), 16)),
              "no intact package: there are 3 tail blocks\n");
}

TEST(PackageCheck, BytesPastTheLastUsedPageAreNotAProblem) {
    Bytes file = EncodePackage(SoundPackage());
    file.resize(file.size() + 12345);
    EXPECT_EQ(Joined(CheckPackage(file)), "");
}

}  // namespace
}  // namespace Quorvel::Format
