#include "CacheDirectory.h"

#include <gmock/gmock.h>

#include <fstream>

#include "FailureOf.h"
#include "support/TemporaryDirectory.h"
#include "support/WorkingDirectory.h"

namespace EffectHost {
namespace {

using Quorvel::Testing::TemporaryDirectory;
using Quorvel::Testing::WorkingDirectory;
using ::testing::HasSubstr;

std::string RefusalOf(const std::filesystem::path& path) {
    return FailureOf(ExitCode::NoCacheDirectory, [&] { FindCacheDirectory(path); });
}

TEST(CacheDirectory, HasOneSpellingForAllItsNames) {
    const TemporaryDirectory folder;
    const auto cache = folder.Path() / "cache";
    std::filesystem::create_directory(cache);
    const std::filesystem::path spelling = FindCacheDirectory(cache);
    EXPECT_TRUE(spelling.is_absolute());
    EXPECT_TRUE(equivalent(spelling, cache));
    EXPECT_EQ(FindCacheDirectory(cache / ""), spelling);
    EXPECT_EQ(FindCacheDirectory(cache / ".." / "." / "cache"), spelling);
    const WorkingDirectory inFolder(folder.Path());
    EXPECT_EQ(FindCacheDirectory("cache"), spelling);
    EXPECT_EQ(FindCacheDirectory("./cache/"), spelling);
    const WorkingDirectory inCache(cache);
    EXPECT_EQ(FindCacheDirectory("."), spelling);
}

TEST(CacheDirectory, MayHaveSpacesAndNonAsciiLetters) {
    const TemporaryDirectory folder;
    const auto cache = folder.Path() / u8"x h\u00f6hle";
    std::filesystem::create_directory(cache);
    EXPECT_TRUE(equivalent(FindCacheDirectory(cache), cache));
}

TEST(CacheDirectory, IsRefusedIfItIsMissingOrAFile) {
    const TemporaryDirectory folder;
    EXPECT_THAT(RefusalOf(folder.Path() / "none"), HasSubstr("there is no cache directory"));
    EXPECT_THAT(RefusalOf(""), HasSubstr("there is no cache directory"));
    const auto file = folder.Path() / "file";
    std::ofstream(file) << "text";
    EXPECT_THAT(RefusalOf(file), HasSubstr("is not a directory"));
    RefusalOf(file / "below");
}

TEST(CacheDirectory, IsRefusedIfItsNameIsTooLong) {
    const TemporaryDirectory folder;
    RefusalOf(folder.Path() / std::string(5000, 'x'));
}

}  // namespace
}  // namespace EffectHost
