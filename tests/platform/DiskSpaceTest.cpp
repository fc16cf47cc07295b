#include "platform/DiskSpace.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

TEST(FreeDiskSpace, IsWhatTheVolumeOfTheFolderHasAvailable) {
    const TemporaryDirectory directory;
    std::uintmax_t before;
    std::uint64_t bytes;
    std::uintmax_t after;
    // Others write to the volume too; the answer counts when nothing changed around it.
    do {
        before = std::filesystem::space(directory.Path()).available;
        bytes = 0;
        ASSERT_TRUE(Platform::GetFreeDiskSpace(directory.Path().string().c_str(), bytes));
        after = std::filesystem::space(directory.Path()).available;
    } while (before != after);
    EXPECT_EQ(bytes, before);
}

TEST(FreeDiskSpace, OfAMissingFolderIsUnknown) {
    const TemporaryDirectory directory;
    std::uint64_t bytes = 4711;
    EXPECT_FALSE(Platform::GetFreeDiskSpace(directory.File("missing").c_str(), bytes));
    EXPECT_EQ(bytes, 4711U);
}

}  // namespace Quorvel::Testing
