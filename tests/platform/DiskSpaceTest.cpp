#include "platform/DiskSpace.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

TEST(FreeDiskSpace, IsTheSpaceAvailableOnTheFoldersVolume) {
    const TemporaryDirectory directory;
    // Other processes write to the volume too, so the answers may differ at first.
    bool agree = false;
    for (int attempts = 0; attempts < 100'000 && !agree; ++attempts) {
        const std::uintmax_t expected = std::filesystem::space(directory.Path()).available;
        std::uint64_t bytes = 0;
        ASSERT_TRUE(Platform::GetFreeDiskSpace(directory.Path().string().c_str(), bytes));
        agree = bytes == expected;
    }
    EXPECT_TRUE(agree);
}

TEST(FreeDiskSpace, OfAMissingFolderIsUnknown) {
    const TemporaryDirectory directory;
    std::uint64_t bytes = 4711;
    EXPECT_FALSE(Platform::GetFreeDiskSpace(directory.File("missing").c_str(), bytes));
    EXPECT_EQ(bytes, 4711U);
}

}  // namespace Quorvel::Testing
