#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "format/EffectCacheWriter.h"
#include "support/TemporaryDirectory.h"
#include "tools/Tools.h"

namespace Quorvel::Tools {
namespace {

using namespace Quorvel::Format;

std::string OutputOfCheck(const std::string& path) {
    const char* const argv[] = {"tool", path.c_str()};
    std::ostringstream out;
    EXPECT_EQ(CheckTool(2, argv, out, out), kDone);
    return out.str();
}

TEST(CheckTool, SaysThatAFileOfAnotherUserIsNotUsed) {
    if (::geteuid() != 0) { GTEST_SKIP() << "only root can give files away"; }
    constexpr uid_t kSomebody = 12345;
    const Testing::TemporaryDirectory directory;
    const std::string path = directory.File("vornFxoCache.dat");
    WriteWholeFile(path, WriteEffectCache({{"a", {1}, false, {1999, 12, 31, 1, 2, 3, 4}}}));
    const auto isRefused = testing::HasSubstr("note: a cache of this user does not use the file");
    EXPECT_THAT(OutputOfCheck(path), testing::Not(isRefused));
    ASSERT_EQ(::chown(path.c_str(), kSomebody, static_cast<gid_t>(-1)), 0);
    EXPECT_THAT(OutputOfCheck(path), isRefused);
    // Root may use a cache of any user.
    ASSERT_EQ(::chown(directory.Path().c_str(), kSomebody, static_cast<gid_t>(-1)), 0);
    EXPECT_THAT(OutputOfCheck(path), testing::Not(isRefused));
}

}  // namespace
}  // namespace Quorvel::Tools
