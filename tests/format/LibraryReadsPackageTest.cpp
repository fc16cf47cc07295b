#include <gtest/gtest.h>

#include <map>

#include "format/LibraryPackage.h"
#include "format/PackageWriter.h"
#include "format/TestData.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Format {
namespace {

// Package files that the library did not write.
class LibraryReadsPackage : public testing::TestWithParam<NamedLayout> {
protected:
    std::map<std::uint64_t, Bytes> streams_ = BoundaryStreams();
    Bytes headerData_ = Pattern(10000, 3);
    Testing::TemporaryDirectory directory_;
    std::string path_ = directory_.File("package");
};

TEST_P(LibraryReadsPackage, Whole) {
    WriteWholeFile(path_, WritePackage(streams_, headerData_, GetParam().layout));

    const auto package = OpenPackage(path_);

    ASSERT_TRUE(package);
    ExpectStreams(*package, streams_);
    EXPECT_TRUE(GetHeaderData(*package) == headerData_);
}

TEST_P(LibraryReadsPackage, AndLeavesItAloneWhenNothingChanges) {
    const Bytes file = WritePackage(streams_, headerData_, GetParam().layout);
    WriteWholeFile(path_, file);

    {
        const auto package = OpenPackage(path_);
        ASSERT_TRUE(package);
        ExpectStreams(*package, streams_);
    }

    EXPECT_TRUE(ReadWholeFile(path_) == file);
}

TEST_P(LibraryReadsPackage, AndKeepsItSoundWhenItChangesIt) {
    WriteWholeFile(path_, WritePackage(streams_, headerData_, GetParam().layout));
    {
        const auto package = OpenPackage(path_, {8});
        ASSERT_TRUE(package);
        const std::map<std::uint64_t, Bytes> before = streams_;
        std::uint32_t seed = 1000;
        for (const auto& [id, content] : before) {
            if (id % 2 == 0) {
                ASSERT_TRUE(package->DeleteDataStream(id));
                streams_.erase(id);
            }
            if (id % 3 == 0) {
                const Bytes added = Pattern(content.size() + 100 * id, ++seed);
                streams_[AddStream(*package, added)] = added;
            }
        }
        headerData_ = Pattern(30000, 4);
        SetHeaderData(*package, headerData_);
        ASSERT_TRUE(package->Commit());
        ExpectStreams(*package, streams_);
    }
    ExpectFile(path_, streams_, headerData_);
}

TEST_P(LibraryReadsPackage, AndCanEmptyIt) {
    WriteWholeFile(path_, WritePackage(streams_, headerData_, GetParam().layout));
    {
        const auto package = OpenPackage(path_);
        ASSERT_TRUE(package);
        for (const auto& [id, content] : streams_) {
            ASSERT_TRUE(package->DeleteDataStream(id));
        }
        SetHeaderData(*package, {});
    }
    ExpectFile(path_, {}, {});
}

INSTANTIATE_TEST_SUITE_P(All, LibraryReadsPackage, testing::ValuesIn(AllLayouts()),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace Quorvel::Format
