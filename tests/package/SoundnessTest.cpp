// Packages that load although a page or tail has two owners, or none.
#include <algorithm>
#include <string>
#include <vector>

#include "format/PackageWriter.h"
#include "package/PackageTest.h"

namespace Quorvel::Testing {

namespace {

using Format::PackageImage;

// Streams 1 to 4, each with a page and a tail in block 0, and stream 5, of three pages. Page 11 is
// free.
class SoundnessTest : public PackageTest {
protected:
    SoundnessTest() : PackageTest({64, 24}) {
        const std::uint64_t first = Add(8192);
        for (const std::size_t size : {9000U, 9000U, 9000U, 9100U}) {
            Add(size);
        }
        Add(3 * 8192);
        Delete(first);
        package_->Commit();
    }
};

class UnsoundPackage : public SoundnessTest, public ::testing::WithParamInterface<Damage> {};

std::uint64_t FreePage(const PackageImage& image) {
    std::uint64_t page = Format::kFirstPage;
    while (image.Link(page) != Format::kFreePage) {
        ++page;
    }
    return page;
}

void AddEmptyBlock(PackageImage& image) {
    Format::TailBlock block = {1, {}, Format::kTailBlockSize, {}};
    for (std::uint64_t& page : block.pages) {
        page = Format::kFirstPage + image.links.size();
        image.links.push_back(page + 1);
    }
    image.links.back() = Format::kChainEnd;
    image.file.resize(Format::PageOffset(block.pages.back()) + Format::kPageSize);
    image.blocks.push_back(block);
}

}  // namespace

TEST_F(SoundnessTest, HoldsForASecondBlockWithoutTails) {
    Edit(AddEmptyBlock);
    EXPECT_TRUE(package_->IsSound());
}

TEST_F(SoundnessTest, HoldsForWhatThePackageWrites) {
    EXPECT_TRUE(package_->IsSound());
    ASSERT_TRUE(package_->Load());
    EXPECT_TRUE(package_->IsSound());
    Delete(2);
    Add(500);
    Add(0);
    SetHeaderData(Format::Pattern(20000, 1));
    ASSERT_TRUE(package_->Commit());
    ASSERT_TRUE(package_->Load());
    EXPECT_TRUE(package_->IsSound());
}

TEST_F(SoundnessTest, HoldsForEveryLayout) {
    for (const Format::NamedLayout& layout : Format::AllLayouts()) {
        Format::WriteWholeFile(path_, Format::WritePackage(Format::BoundaryStreams(),
                                                           Format::Pattern(100, 1), layout.layout));
        settings_.streamLimit = 1000;
        const auto package = NewPackage();
        ASSERT_TRUE(package->Load()) << layout.name;
        EXPECT_TRUE(package->IsSound()) << layout.name;
    }
}

TEST_F(SoundnessTest, HoldsForABlockOfAnyId) {
    Edit([](PackageImage& image) {
        image.blocks[0].id = 2;
        for (Format::Fragment& fragment : image.fragments) {
            fragment.blockId = 2;
        }
    });
    EXPECT_TRUE(package_->IsSound());
}

TEST_F(SoundnessTest, FailsWithoutAFile) {
    EXPECT_FALSE(NewPackage()->IsSound());
}

TEST_P(UnsoundPackage, IsDetected) {
    Edit(GetParam().apply);
    EXPECT_FALSE(package_->IsSound());
}

class OddPackage : public UnsoundPackage {};

// Every stream is found whole, and the package can be changed and committed.
TEST_P(OddPackage, IsTolerated) {
    Edit(GetParam().apply);
    EXPECT_TRUE(package_->IsSound());
    ExpectPackage();
    for (const std::uint64_t deleted : {2U, 1U}) {
        Delete(deleted);
        Add(9500);
        ExpectPackage();
        ASSERT_TRUE(package_->Commit());
        ASSERT_TRUE(package_->Load());
        EXPECT_TRUE(package_->IsSound());
        ExpectPackage();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Oddity, OddPackage,
    ::testing::ValuesIn(std::vector<Damage>{
        {"Nothing", [](PackageImage&) {}},
        {"LeakedPage",
         [](PackageImage& image) {
             image.links.push_back(Format::kChainEnd);
             image.file.resize(image.file.size() + Format::kPageSize);
         }},
        {"LeakedChain",
         [](PackageImage& image) {
             image.links.push_back(Format::kFirstPage + image.links.size() + 1);
             image.links.push_back(Format::kChainEnd);
             image.file.resize(image.file.size() + 2 * Format::kPageSize);
         }},
        {"LeakedPagePastTheEndOfTheFile",
         [](PackageImage& image) { image.links.push_back(Format::kChainEnd); }},
        {"BlockThatContinuesInALeakedPage",
         [](PackageImage& image) {
             image.links.push_back(Format::kChainEnd);
             image.links[image.blocks[0].pages[7] - 10] =
                 Format::kFirstPage + image.links.size() - 1;
         }},
        {"StreamThatContinuesInALeakedPage",
         [](PackageImage& image) {
             image.links.push_back(Format::kChainEnd);
             image.file.resize(image.file.size() + Format::kPageSize);
             image.links[image.streams[0].firstPage - 10] =
                 Format::kFirstPage + image.links.size() - 1;
         }},
        {"GapAfterTheTails", [](PackageImage& image) { image.blocks[0].freeBytes -= 100; }},
        {"TailOfNoBytes",
         [](PackageImage& image) {
             image.blocks[0].streams.push_back(20);
             image.fragments.push_back({20, 0, 4, image.fragments[3].offset, 0});
         }},
        {"ListInAnotherOrder",
         [](PackageImage& image) {
             std::reverse(image.blocks[0].streams.begin(), image.blocks[0].streams.end());
             for (Format::Fragment& fragment : image.fragments) {
                 fragment.index = 3 - fragment.index;
             }
         }},
    }),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Damage, UnsoundPackage,
    ::testing::ValuesIn(std::vector<Damage>{
        {"TwoStreamsOfOnePage",
         [](PackageImage& image) { image.streams[0].firstPage = image.streams[1].firstPage; }},
        {"StreamThatContinuesInAnother",
         [](PackageImage& image) {
             image.links[image.streams[0].firstPage - 10] = image.streams[1].firstPage;
         }},
        {"StreamThatBeginsInsideAnother",
         [](PackageImage& image) {
             image.streams[0].firstPage = image.Link(image.streams.back().firstPage);
         }},
        {"StreamInAFreePage",
         [](PackageImage& image) { image.streams[0].firstPage = FreePage(image); }},
        {"StreamThatContinuesInAFreePage",
         [](PackageImage& image) {
             image.links[image.streams[0].firstPage - 10] = FreePage(image);
         }},
        {"StreamInTheHeadFile",
         [](PackageImage& image) { image.streams[0].firstPage = Format::kFirstPage; }},
        {"StreamInATailBlock",
         [](PackageImage& image) { image.streams[0].firstPage = image.blocks[0].pages[0]; }},
        {"StreamWithoutEnd",
         [](PackageImage& image) {
             image.links[image.streams[0].firstPage - 10] = image.streams[0].firstPage;
         }},
        {"BlockWithAnotherPage",
         [](PackageImage& image) { image.blocks[0].pages[7] = FreePage(image); }},
        {"BlockWithAPageTwice",
         [](PackageImage& image) { image.blocks[0].pages[7] = image.blocks[0].pages[0]; }},
        {"BlockThatEndsEarly",
         [](PackageImage& image) { image.links[image.blocks[0].pages[3] - 10] = 0; }},
        {"BlockThatContinues",
         [](PackageImage& image) {
             image.links[image.blocks[0].pages[7] - 10] = image.streams[0].firstPage;
         }},
        {"UnownedPageThatContinuesInAFreeOne",
         [](PackageImage& image) {
             const std::uint64_t free = FreePage(image);
             image.links.push_back(free);
         }},
        {"FreeHeadPage", [](PackageImage& image) { image.links[0] = Format::kFreePage; }},
        {"TailInAnothersPlace",
         [](PackageImage& image) { image.fragments[1].offset = image.fragments[0].offset; }},
        {"TailInFreeBytes", [](PackageImage& image) { image.blocks[0].freeBytes += 1; }},
        {"ListInAnotherOrderThanTheTailsSay",
         [](PackageImage& image) {
             std::reverse(image.blocks[0].streams.begin(), image.blocks[0].streams.end());
         }},
        {"TailThatIsNotListed", [](PackageImage& image) { image.blocks[0].streams.pop_back(); }},
        {"ListOfAStreamWithoutATail", [](PackageImage& image) { image.blocks[0].streams[0] = 20; }},
        {"ListOfOneStreamTooMany",
         [](PackageImage& image) { image.blocks[0].streams.push_back(20); }},
        {"ListOfAStreamTwice",
         [](PackageImage& image) {
             image.blocks[0].streams.push_back(image.blocks[0].streams[0]);
         }},
        {"ListOfAStreamOfAnotherBlock",
         [](PackageImage& image) {
             AddEmptyBlock(image);
             image.blocks[1].streams = {image.blocks[0].streams[0]};
         }},
        {"TailsOfSwappedStreams",
         [](PackageImage& image) {
             std::swap(image.fragments[0].streamId, image.fragments[1].streamId);
         }},
        {"StreamPastTheEndOfTheFile",
         [](PackageImage& image) {
             image.links.push_back(Format::kChainEnd);
             image.streams[0].firstPage = Format::kFirstPage + image.links.size() - 1;
         }},
        {"LeakedPageFarPastTheEndOfTheFile",
         [](PackageImage& image) { image.links.resize(image.links.size() + 200); }},
        {"TailOfNoStreamInAnothersPlace",
         [](PackageImage& image) {
             image.fragments.push_back({20, 0, 4, image.fragments[3].offset, 1});
         }},
    }),
    [](const auto& test) { return test.param.name; });

}  // namespace Quorvel::Testing
