#include "platform/Directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/Path.h"
#include "support/TemporaryDirectory.h"
#include "support/WorkingDirectory.h"

namespace Quorvel::Testing {

using Platform::FindDirectory;
using Access = Platform::Directory::Access;

namespace {

Platform::Directory Find(const std::string& path) {
    return FindDirectory(path.c_str(), "file");
}

std::string Separated(const std::string& path) {
    return path + Platform::kPathSeparator;
}

class DirectoryTest : public ::testing::Test {
protected:
    const TemporaryDirectory directory_;
    const std::string path_ = directory_.Path().string();
};

}  // namespace

TEST_F(DirectoryTest, IsFoundByItsAbsolutePath) {
    const Platform::Directory found = Find(path_);
    EXPECT_EQ(found.access, Access::Granted);
    EXPECT_EQ(found.path, Separated(path_));
    EXPECT_EQ(found.spelling, Separated(path_));
    EXPECT_EQ(found.user, Platform::kSelf);
}

TEST_F(DirectoryTest, HasOneSeparatorAtItsEnd) {
    EXPECT_EQ(Find(Separated(path_)).path, Separated(path_));
    EXPECT_EQ(Find(Separated(path_)).spelling, Separated(path_));
}

TEST_F(DirectoryTest, KeepsTheSpellingOfAnAbsolutePath) {
    const std::string detour = (directory_.Path() / ".").string();
    EXPECT_EQ(Find(detour).spelling, Separated(detour));
    EXPECT_EQ(Find(detour).path, Separated(path_));
}

TEST_F(DirectoryTest, SpellsARelativePathAsAnAbsoluteOne) {
    const WorkingDirectory working(directory_.Path());
    std::filesystem::create_directory("folder");
    EXPECT_EQ(Find(".").spelling, Separated(path_));
    EXPECT_EQ(Find(".").path, Separated(path_));
    EXPECT_EQ(Find("folder").spelling, Separated((directory_.Path() / "folder").string()));
    EXPECT_EQ(Find("folder").path, Find("folder").spelling);
}

TEST_F(DirectoryTest, HasOneIdentityForAllItsPaths) {
    const WorkingDirectory working(directory_.Path());
    const std::string identity = Find(path_).identity;
    EXPECT_EQ(identity.find_first_not_of("0123456789_"), std::string::npos);
    EXPECT_EQ(Find(Separated(path_)).identity, identity);
    EXPECT_EQ(Find((directory_.Path() / ".").string()).identity, identity);
    EXPECT_EQ(Find(".").identity, identity);
}

TEST_F(DirectoryTest, HasAnIdentityOfItsOwn) {
    const TemporaryDirectory other;
    std::filesystem::create_directory(directory_.Path() / "folder");
    EXPECT_NE(Find(path_).identity, Find(other.Path().string()).identity);
    EXPECT_NE(Find(path_).identity, Find((directory_.Path() / "folder").string()).identity);
}

TEST_F(DirectoryTest, IsNotFoundIfItIsMissing) {
    const WorkingDirectory working(directory_.Path());
    for (const std::string& path : {directory_.File("missing"), std::string("missing")}) {
        EXPECT_EQ(Find(path).access, Access::NotFound);
        EXPECT_EQ(Find(path).spelling, Separated(path));
    }
}

TEST_F(DirectoryTest, IsNotFoundIfItIsAFile) {
    std::ofstream(directory_.File("plain")) << "text";
    EXPECT_EQ(Find(directory_.File("plain")).access, Access::NotFound);
}

TEST_F(DirectoryTest, IsNotFoundByAnEmptyPath) {
    EXPECT_EQ(Find("").access, Access::NotFound);
    EXPECT_EQ(Find("").spelling, "");
}

TEST_F(DirectoryTest, IsGrantedWithAFileOfTheUser) {
    std::ofstream(directory_.File("file")) << "text";
    EXPECT_EQ(Find(path_).access, Access::Granted);
}

}  // namespace Quorvel::Testing
