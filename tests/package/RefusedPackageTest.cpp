// Package files that cannot be loaded, each damaged in one place.
#include <string>

#include "package/AllocationWatch.h"
#include "package/PackageTest.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;
using Format::PackageImage;

constexpr std::uint64_t kLimit = 24;
constexpr std::uint64_t kNone = ~std::uint64_t{0};

// Streams 0 to 2, each with a page and a tail; the block has id 0.
class RefusedPackageTest : public PackageTest {
protected:
    RefusedPackageTest() : PackageTest({64, kLimit}) {
        for (const std::size_t size : {9000U, 10000U, 11000U}) {
            Add(size);
        }
        SetHeaderData({'h', 'e', 'a', 'd'});
        package_->Commit();
        file_ = File();
    }

    // Fails the test unless the file is refused by OpenFilePackage, and by Load of a package that
    // has the contents of the sound file.
    void ExpectRefusal(const Bytes& file) {
        Format::WriteWholeFile(path_, file);
        EXPECT_FALSE(Format::OpenPackage(path_, settings_));
        EXPECT_FALSE(package_->Load());
        EXPECT_FALSE(package_->HasChanges());
        EXPECT_EQ(package_->GetNumberOfDataStreams(), 3U);
        EXPECT_TRUE(Format::GetHeaderData(*package_) == headerData_);
        EXPECT_TRUE(File() == file);
    }

    // The sound file with one number of the head file's first page replaced.
    Bytes WithWord(std::size_t offset, std::uint64_t value) const {
        Bytes file = file_;
        Format::StoreInteger(file, offset, 8, value);
        return file;
    }

    Bytes file_;
};

class RefusedState : public RefusedPackageTest, public ::testing::WithParamInterface<Damage> {};

std::string NameOf(const ::testing::TestParamInfo<Damage>& damage) {
    return damage.param.name;
}

Bytes Encoded(PackageImage image, const Damage& damage) {
    damage.apply(image);
    return Format::EncodePackage(image);
}

// Appends copies of the first record until there are `count`.
template <typename Record>
void Fill(std::vector<Record>& records, std::size_t count) {
    while (records.size() < count) {
        records.push_back(records[0]);
    }
}

void FillStreams(PackageImage& image, std::size_t count) {
    Fill(image.streams, count);
    for (std::size_t id = 0; id < count; ++id) {
        image.streams[id].id = id;
    }
}

void FillBlocks(PackageImage& image, std::size_t count) {
    Fill(image.blocks, count);
    for (std::size_t id = 0; id < count; ++id) {
        image.blocks[id].id = id;
    }
}

void FillFragments(PackageImage& image, std::size_t count) {
    Fill(image.fragments, count);
    for (std::size_t id = 0; id < count; ++id) {
        image.fragments[id].streamId = id;
    }
}

}  // namespace

TEST_P(RefusedState, IsNotLoaded) {
    ExpectRefusal(Encoded(Format::ReadPackage(file_), GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Field, RefusedState,
    ::testing::ValuesIn(std::vector<Damage>{
        {"LinkFollowedTwice", [](PackageImage& image) { image.links[1] = image.links[3]; }},
        {"LinkBeyondTheTable", [](PackageImage& image) { image.links[1] = 900; }},
        {"TooManyStreams", [](PackageImage& image) { FillStreams(image, kLimit + 1); }},
        {"StreamIdTwice", [](PackageImage& image) { image.streams[2].id = 0; }},
        {"StreamIdAboveTheLimit", [](PackageImage& image) { image.streams[2].id = kLimit + 1; }},
        {"StreamIdAboveTheHighest", [](PackageImage& image) { image.streams[2].id = 0x1000000; }},
        {"InvalidStreamId", [](PackageImage& image) { image.streams[2].id = kNone; }},
        {"TooManyWholePages", [](PackageImage& image) { image.streams[0].pageCount = 0xFFFF7; }},
        {"TooManyBlocks", [](PackageImage& image) { FillBlocks(image, kLimit / 8 + 1); }},
        {"BlockIdTwice",
         [](PackageImage& image) {
             FillBlocks(image, 2);
             image.blocks[1].id = 0;
         }},
        {"BlockIdAboveTheLimit", [](PackageImage& image) { image.blocks[0].id = kLimit / 8 + 1; }},
        {"BlockPageBelowTheFirst", [](PackageImage& image) { image.blocks[0].pages[7] = 9; }},
        {"BlockPageAboveTheLast", [](PackageImage& image) { image.blocks[0].pages[0] = 0x100000; }},
        {"TooManyFreeBytes", [](PackageImage& image) { image.blocks[0].freeBytes = 65537; }},
        {"TooManyFragments", [](PackageImage& image) { FillFragments(image, kLimit + 1); }},
        {"ListIndexAtTheLimit", [](PackageImage& image) { image.fragments[0].index = kLimit; }},
        {"FragmentOfAStreamAboveTheLimit",
         [](PackageImage& image) { image.fragments[2].streamId = kLimit + 1; }},
        {"FragmentInAMissingBlock", [](PackageImage& image) { image.fragments[0].blockId = 1; }},
        {"FragmentPastItsBlock", [](PackageImage& image) { image.fragments[0].offset = 65536; }},
        {"FragmentOfAWholePage", [](PackageImage& image) { image.fragments[0].length = 8192; }},
        {"SecondFragmentOfAStream", [](PackageImage& image) { image.fragments[2].streamId = 0; }},
    }),
    NameOf);

class AcceptedState : public RefusedPackageTest, public ::testing::WithParamInterface<Damage> {};

// The same fields, with the last values that are accepted.
TEST_P(AcceptedState, IsLoaded) {
    Format::WriteWholeFile(path_, Encoded(Format::ReadPackage(file_), GetParam()));
    EXPECT_TRUE(Format::OpenPackage(path_, settings_));
    EXPECT_TRUE(package_->Load());
}

INSTANTIATE_TEST_SUITE_P(
    Field, AcceptedState,
    ::testing::ValuesIn(std::vector<Damage>{
        {"AsManyStreamsAsTheLimit", [](PackageImage& image) { FillStreams(image, kLimit); }},
        {"StreamIdAtTheLimit", [](PackageImage& image) { image.streams[2].id = kLimit; }},
        {"AllWholePages", [](PackageImage& image) { image.streams[0].pageCount = 0xFFFF6; }},
        {"AsManyBlocksAsAllowed", [](PackageImage& image) { FillBlocks(image, kLimit / 8); }},
        {"BlockIdAtTheLimit",
         [](PackageImage& image) {
             FillBlocks(image, 2);
             image.blocks[1].id = kLimit / 8;
         }},
        {"FirstAndLastPage",
         [](PackageImage& image) {
             image.blocks[0].pages[0] = 10;
             image.blocks[0].pages[7] = 0xFFFFF;
         }},
        {"AllBytesFree", [](PackageImage& image) { image.blocks[0].freeBytes = 65536; }},
        {"AsManyFragmentsAsTheLimit", [](PackageImage& image) { FillFragments(image, kLimit); }},
        {"ListIndexBelowTheLimit",
         [](PackageImage& image) { image.fragments[0].index = kLimit - 1; }},
        {"FragmentOfAStreamAtTheLimit",
         [](PackageImage& image) { image.fragments[2].streamId = kLimit; }},
        {"FragmentInTheLastByte", [](PackageImage& image) { image.fragments[0].offset = 65535; }},
        {"FragmentOfNearlyAPage", [](PackageImage& image) { image.fragments[0].length = 8191; }},
    }),
    NameOf);

TEST_F(RefusedPackageTest, HasASizeBelowThatOfItsState) {
    const std::uint64_t size = Format::ReadPackage(file_).stateSize;
    for (std::uint64_t shorter = 1; shorter < size; ++shorter) {
        Bytes file = WithWord(8, shorter);
        Format::StoreInteger(file, 24, 8, shorter + 32);
        ExpectRefusal(file);
        ASSERT_FALSE(HasFailure()) << shorter;
    }
}

TEST_F(RefusedPackageTest, HasMoreHeaderDataThanIsLeft) {
    const std::size_t length = 32 + static_cast<std::size_t>(Format::ReadPackage(file_).stateSize) -
                               headerData_.size() - 8;
    for (const std::uint64_t value : {std::uint64_t{5}, std::uint64_t{1} << 40, kNone}) {
        ExpectRefusal(WithWord(length, value));
    }
}

TEST_F(RefusedPackageTest, HasAHeadFileThatDoesNotValidate) {
    for (const std::uint64_t pageCount : {std::uint64_t{0}, std::uint64_t{0xFFFF7}, kNone}) {
        ExpectRefusal(WithWord(0, pageCount));
    }
    ExpectRefusal(WithWord(8, 8193));   // more bytes than one page has
    ExpectRefusal(WithWord(16, 11));    // a page that is not full and not the last
    ExpectRefusal(WithWord(24, 32));    // no data
    ExpectRefusal(WithWord(24, 8193));  // data past the page
}

TEST_F(RefusedPackageTest, IsEmpty) {
    ExpectRefusal({});
}

// A file of one page whose header claims the largest possible number of pages, and 6 GiB.
class ClaimingPackageTest : public RefusedPackageTest {
protected:
    static constexpr std::uint64_t kClaimedPages = 0xFFFF6;
    static constexpr std::uint64_t kClaimedBytes = 0x17FFF0000;

    // The first page with a header that claims more pages, followed by the given numbers.
    Bytes Claiming(const std::vector<std::uint64_t>& state) const {
        Bytes file(file_.begin(), file_.begin() + 8192);
        const std::vector<std::uint64_t> header = {kClaimedPages, kClaimedBytes, 11, 8192};
        std::size_t offset = 0;
        for (const auto& words : {header, state}) {
            for (const std::uint64_t word : words) {
                Format::StoreInteger(file, offset, 8, word);
                offset += 8;
            }
        }
        return file;
    }

    // The tables for the claimed pages take up to 16 MiB each.
    void ExpectRefusalInLittleMemory(const Bytes& file) {
        const AllocationWatch watch;
        ExpectRefusal(file);
        EXPECT_LE(watch.Largest(), kClaimedPages * 16);
    }
};

TEST_F(ClaimingPackageTest, AllocatesNothingForHeaderDataThatTheFileDoesNotHold) {
    ExpectRefusalInLittleMemory(Claiming({0, 0, 0, 0, std::uint64_t{1} << 30}));
    ExpectRefusalInLittleMemory(Claiming({0, 0, 0, 0, std::uint64_t{5} << 30}));
    ExpectRefusalInLittleMemory(Claiming({0, 0, 0, 0, std::uint64_t{1} << 60}));
}

TEST_F(ClaimingPackageTest, AllocatesNothingForAListThatTheFileDoesNotHold) {
    ExpectRefusalInLittleMemory(
        Claiming({0, 0, 1, 0, 11, 12, 13, 14, 15, 16, 17, 18, 0, std::uint64_t{1} << 27}));
}

}  // namespace Quorvel::Testing
