#include "format/PackageWriter.h"

#include <gtest/gtest.h>

#include "format/PackageCheck.h"
#include "format/TestData.h"

namespace Quorvel::Format {
namespace {

class PackageWriterLayout : public testing::TestWithParam<NamedLayout> {};

TEST_P(PackageWriterLayout, IsSoundAndReadsBackWhole) {
    const auto streams = BoundaryStreams();
    const Bytes headerData = Pattern(10000, 3);

    const Bytes file = WritePackage(streams, headerData, GetParam().layout);

    EXPECT_EQ(Joined(CheckPackage(file)), "");
    const PackageImage image = ReadPackage(file);
    EXPECT_TRUE(ReadAllStreams(image) == streams);
    EXPECT_TRUE(image.headerData == headerData);
}

INSTANTIATE_TEST_SUITE_P(All, PackageWriterLayout, testing::ValuesIn(AllLayouts()),
                         [](const auto& instance) { return instance.param.name; });

TEST(PackageWriter, AnEmptyPackageIsItsHeadPageAlone) {
    const PackageImage image = ReadPackage(WritePackage({}, {}));

    EXPECT_EQ(image.file.size(), kPageSize);
    EXPECT_EQ(image.links, std::vector<std::uint64_t>{kChainEnd});
    EXPECT_TRUE(image.streams.empty());
    EXPECT_TRUE(image.headerData.empty());
}

TEST(PackageWriter, AHeadFileThatFillsItsLastPageEndsThere) {
    // Number of links, three empty tables and the length of the header data; no links.
    const std::size_t fixed = 8 + 3 * 8 + 8;
    for (const std::size_t pages : {1u, 2u, 3u}) {
        const std::size_t capacity = 8160 + (pages - 1) * 8176;
        const Bytes exact = WritePackage({}, Pattern(capacity - fixed - 8 * pages, 1));
        EXPECT_EQ(exact.size(), pages * kPageSize);
        EXPECT_EQ(Joined(CheckPackage(exact)), "");

        const Bytes oneMore = WritePackage({}, Pattern(capacity - fixed - 8 * pages + 1, 1));
        EXPECT_EQ(oneMore.size(), (pages + 1) * kPageSize);
        EXPECT_EQ(Joined(CheckPackage(oneMore)), "");
    }
}

}  // namespace
}  // namespace Quorvel::Format
