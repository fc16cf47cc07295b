#include "platform/Path.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace Quorvel::Testing {

TEST(PathSeparator, IsTheOneThePlatformPrefers) {
    EXPECT_EQ(Platform::kPathSeparator,
              static_cast<char>(std::filesystem::path::preferred_separator));
}

}  // namespace Quorvel::Testing
