#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "format/LibraryPackage.h"
#include "format/TestData.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Format {
namespace {

// The start of a page, as far as a test writes it out; the rest does not matter.
Bytes PageStart(const Bytes& file, std::uint64_t page, std::size_t count) {
    const auto from = file.begin() + static_cast<std::ptrdiff_t>(PageOffset(page));
    return Bytes(from, from + static_cast<std::ptrdiff_t>(count));
}

TEST(PackageBytes, OfAnEmptyPackage) {
    const Testing::TemporaryDirectory directory;
    CreatePackage(directory.File("package"));

    const Bytes expected = {
        1,    0, 0, 0, 0, 0, 0, 0,  // the head file has one page
        0x30, 0, 0, 0, 0, 0, 0, 0,  // and 48 bytes
        0,    0, 0, 0, 0, 0, 0, 0,  // no next page
        0x50, 0, 0, 0, 0, 0, 0, 0,  // data ends at 80
        1,    0, 0, 0, 0, 0, 0, 0,  // one link
        0,    0, 0, 0, 0, 0, 0, 0,  // page 10 ends its chain
        0,    0, 0, 0, 0, 0, 0, 0,  // no streams
        0,    0, 0, 0, 0, 0, 0, 0,  // no tail blocks
        0,    0, 0, 0, 0, 0, 0, 0,  // no fragments
        0,    0, 0, 0, 0, 0, 0, 0,  // no header data
    };
    const Bytes file = ReadWholeFile(directory.File("package"));
    EXPECT_EQ(file.size(), 8192u);
    EXPECT_THAT(PageStart(file, 10, expected.size()), testing::ElementsAreArray(expected));
}

TEST(PackageBytes, OfThreeStreams) {
    const Testing::TemporaryDirectory directory;
    {
        const auto package = CreatePackage(directory.File("package"));
        ASSERT_TRUE(package);
        AddStream(*package, {'a', 'b', 'c'});
        Bytes page(8192, 'p');
        Append(page, "tail!");
        AddStream(*package, page);
        AddStream(*package, {});
        SetHeaderData(*package, {'h', 'e', 'a', 'd'});
    }

    const Bytes head = {1,    0,    0,   0,  0, 0, 0, 0,  // the head file has one page
                        0x94, 0x01, 0,   0,  0, 0, 0, 0,  // and 404 bytes
                        0,    0,    0,   0,  0, 0, 0, 0,  // no next page
                        0xB4, 0x01, 0,   0,  0, 0, 0, 0,  // data ends at 436

                        10,   0,    0,   0,  0, 0, 0, 0,  // ten links
                        0,    0,    0,   0,  0, 0, 0, 0,  // 10: the head file
                        12,   0,    0,   0,  0, 0, 0, 0,  // 11 to 18: the tail block
                        13,   0,    0,   0,  0, 0, 0, 0,  //
                        14,   0,    0,   0,  0, 0, 0, 0,  //
                        15,   0,    0,   0,  0, 0, 0, 0,  //
                        16,   0,    0,   0,  0, 0, 0, 0,  //
                        17,   0,    0,   0,  0, 0, 0, 0,  //
                        18,   0,    0,   0,  0, 0, 0, 0,  //
                        0,    0,    0,   0,  0, 0, 0, 0,  //
                        0,    0,    0,   0,  0, 0, 0, 0,  // 19: the second stream's whole page

                        3,    0,    0,   0,  0, 0, 0, 0,  // three streams
                        0,    0,    0,   0,  0, 0, 0, 0,  // id
                        3,    0,    0,   0,  0, 0, 0, 0,  // size
                        0,    0,    0,   0,  0, 0, 0, 0,  // first page
                        0,    0,    0,   0,  0, 0, 0, 0,  // whole pages
                        1,    0,    0,   0,  0, 0, 0, 0,  //
                        0x05, 0x20, 0,   0,  0, 0, 0, 0,  //
                        19,   0,    0,   0,  0, 0, 0, 0,  //
                        1,    0,    0,   0,  0, 0, 0, 0,  //
                        2,    0,    0,   0,  0, 0, 0, 0,  //
                        0,    0,    0,   0,  0, 0, 0, 0,  //
                        0,    0,    0,   0,  0, 0, 0, 0,  //
                        0,    0,    0,   0,  0, 0, 0, 0,  //

                        1,    0,    0,   0,  0, 0, 0, 0,  // one tail block
                        0,    0,    0,   0,  0, 0, 0, 0,  // id
                        11,   0,    0,   0,  0, 0, 0, 0,  // pages
                        12,   0,    0,   0,  0, 0, 0, 0,  //
                        13,   0,    0,   0,  0, 0, 0, 0,  //
                        14,   0,    0,   0,  0, 0, 0, 0,  //
                        15,   0,    0,   0,  0, 0, 0, 0,  //
                        16,   0,    0,   0,  0, 0, 0, 0,  //
                        17,   0,    0,   0,  0, 0, 0, 0,  //
                        18,   0,    0,   0,  0, 0, 0, 0,  //
                        0xF8, 0xFF, 0,   0,  0, 0, 0, 0,  // 65528 bytes free
                        2,    0,    0,   0,  0, 0, 0, 0,  // two streams
                        0,    0,    0,   0,  0, 0, 0, 0,  //
                        1,    0,    0,   0,  0, 0, 0, 0,  //

                        2,    0,    0,   0,  0, 0, 0, 0,  // two fragments
                        0,    0,    0,   0,  0, 0, 0, 0,  // stream
                        0,    0,    0,   0,  0, 0, 0, 0,  // tail block
                        0,    0,    0,   0,  0, 0, 0, 0,  // index
                        0,    0,    0,   0,  0, 0, 0, 0,  // offset
                        3,    0,    0,   0,  0, 0, 0, 0,  // length
                        1,    0,    0,   0,  0, 0, 0, 0,  //
                        0,    0,    0,   0,  0, 0, 0, 0,  //
                        1,    0,    0,   0,  0, 0, 0, 0,  //
                        3,    0,    0,   0,  0, 0, 0, 0,  //
                        5,    0,    0,   0,  0, 0, 0, 0,  //

                        4,    0,    0,   0,  0, 0, 0, 0,  // four bytes of header data
                        'h',  'e',  'a', 'd'};
    const Bytes file = ReadWholeFile(directory.File("package"));
    EXPECT_EQ(file.size(), 10 * 8192u);
    EXPECT_THAT(PageStart(file, 10, head.size()), testing::ElementsAreArray(head));
    EXPECT_THAT(PageStart(file, 11, 8),
                testing::ElementsAre('a', 'b', 'c', 't', 'a', 'i', 'l', '!'));
    EXPECT_TRUE(PageStart(file, 19, 8192) == Bytes(8192, 'p'));
}

TEST(PackageBytes, OfALongHeadFile) {
    const Testing::TemporaryDirectory directory;
    {
        const auto package = CreatePackage(directory.File("package"));
        ASSERT_TRUE(package);
        SetHeaderData(*package, Bytes(20000, 'h'));
    }

    const Bytes first = {3,    0,    0,   0,   0,   0,   0,   0,  // three pages
                         0x60, 0x4E, 0,   0,   0,   0,   0,   0,  // 20064 bytes
                         11,   0,    0,   0,   0,   0,   0,   0,  // page 11 is next
                         0,    0x20, 0,   0,   0,   0,   0,   0,  // the page is full
                         3,    0,    0,   0,   0,   0,   0,   0,  // three links
                         11,   0,    0,   0,   0,   0,   0,   0,  //
                         12,   0,    0,   0,   0,   0,   0,   0,  //
                         0,    0,    0,   0,   0,   0,   0,   0,  //
                         0,    0,    0,   0,   0,   0,   0,   0,  // no streams
                         0,    0,    0,   0,   0,   0,   0,   0,  // no tail blocks
                         0,    0,    0,   0,   0,   0,   0,   0,  // no fragments
                         0x20, 0x4E, 0,   0,   0,   0,   0,   0,  // 20000 bytes of header data
                         'h',  'h',  'h', 'h', 'h', 'h', 'h', 'h'};
    const Bytes second = {12,  0,    0, 0, 0, 0, 0, 0,  // page 12 is next
                          0,   0x20, 0, 0, 0, 0, 0, 0,  // the page is full
                          'h', 'h'};
    const Bytes third = {0,    0,    0, 0, 0, 0, 0, 0,  // the last page
                         0xA0, 0x0E, 0, 0, 0, 0, 0, 0,  // data ends at 3744
                         'h',  'h'};
    const Bytes file = ReadWholeFile(directory.File("package"));
    EXPECT_EQ(file.size(), 3 * 8192u);
    EXPECT_THAT(PageStart(file, 10, first.size()), testing::ElementsAreArray(first));
    EXPECT_THAT(PageStart(file, 11, second.size()), testing::ElementsAreArray(second));
    EXPECT_THAT(PageStart(file, 12, third.size()), testing::ElementsAreArray(third));
    EXPECT_EQ(file[2 * 8192 + 3743], 'h');
}

TEST(PackageBytes, OfFreedPagesAreMarkedFreeAndReusedInTheOrderTheyWereFreed) {
    const Testing::TemporaryDirectory directory;
    const std::string path = directory.File("package");
    const auto package = CreatePackage(path);
    ASSERT_TRUE(package);
    const std::uint64_t first = AddStream(*package, Bytes(2 * 8192, '1'));  // pages 11 and 12
    const std::uint64_t second = AddStream(*package, Bytes(8192, '2'));     // page 13
    ASSERT_TRUE(package->DeleteDataStream(second));
    ASSERT_TRUE(package->DeleteDataStream(first));
    ASSERT_TRUE(package->Commit());
    EXPECT_THAT(ReadPackage(ReadWholeFile(path)).links, testing::ElementsAre(0, 1, 1, 1));

    AddStream(*package, Bytes(2 * 8192, '3'));
    ASSERT_TRUE(package->Commit());
    EXPECT_THAT(ReadPackage(ReadWholeFile(path)).links, testing::ElementsAre(0, 0, 1, 11));
}

}  // namespace
}  // namespace Quorvel::Format
