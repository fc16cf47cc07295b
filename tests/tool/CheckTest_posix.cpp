#include <unistd.h>

#include "tool/ToolTest.h"

// On Windows, the file system alone decides about files of other users.
namespace Quorvel::Tool {
namespace {

class PosixCheckTest : public ToolTest {};

TEST_F(PosixCheckTest, SaysThatAFileOfAnotherUserIsNotUsed) {
    if (::geteuid() != 0) { GTEST_SKIP() << "only root can give files away"; }
    constexpr uid_t kSomebody = 12345;
    MakeCache(ThreeEffects());
    const auto isRefused = testing::HasSubstr("note: a cache of this user does not use the file");
    EXPECT_EQ(Run({"check", "--offline", CacheFile()}), kDone);
    EXPECT_THAT(out_, testing::Not(isRefused));
    ASSERT_EQ(::chown(CacheFile().c_str(), kSomebody, static_cast<gid_t>(-1)), 0);
    EXPECT_EQ(Run({"check", "--offline", CacheFile()}), kDone);
    EXPECT_THAT(out_, isRefused);
    EXPECT_EQ(Run({"check", CacheFile()}), kFailed);
    EXPECT_THAT(err_, testing::HasSubstr("belongs to another user"));
    // Root may use a cache of any user.
    ASSERT_EQ(::chown(cache_.c_str(), kSomebody, static_cast<gid_t>(-1)), 0);
    EXPECT_EQ(Run({"check", "--offline", CacheFile()}), kDone);
    EXPECT_THAT(out_, testing::Not(isRefused));
}

}  // namespace
}  // namespace Quorvel::Tool
