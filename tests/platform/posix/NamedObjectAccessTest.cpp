#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "platform/Handles.h"
#include "platform/posix/ForeignUser.h"
#include "platform/posix/NamedObject.h"
#include "support/TemporaryDirectory.h"

// Which objects a user can reach, and what happens if another user might have planted something in
// their place.
namespace Quorvel::Testing {

using Platform::NamedObject;

namespace {

const std::string kRefusedAccess = std::to_string(EACCES);
const std::string kRefusedLink = std::to_string(ELOOP);

class NamedObjectAccess : public ::testing::Test {
protected:
    void TearDown() override { SweepUp(name_); }

    std::filesystem::path ObjectPath() const {
        return user_.Folder() / NamedObject::FileName("memory", name_.c_str());
    }

    // The results of the user's attempts to create a block and a mutex with this name.
    std::string MakeBlock() const { return user_.StartObjectUser()->Ask("memory " + name_); }
    std::string MakeMutex() const { return user_.StartObjectUser()->Ask("mutex " + name_); }

    static std::string ContentOf(const std::filesystem::path& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const ForeignUser user_;
    const TemporaryDirectory directory_;
    const std::string name_ = UniqueName();
};

}  // namespace

TEST_F(NamedObjectAccess, GivesEachUserASeparateBlock) {
    const auto own = StartObjectUser();
    const auto foreign = user_.StartObjectUser();
    ASSERT_EQ(own->Ask("memory " + name_), "0");
    own->Ask("write 5");
    EXPECT_EQ(foreign->Ask("attach " + name_), std::to_string(ENOENT));
    ASSERT_EQ(foreign->Ask("memory " + name_), "0");
    EXPECT_EQ(foreign->Ask("read"), "0");
    foreign->Ask("write 6");
    EXPECT_EQ(own->Ask("read"), "5");
}

TEST_F(NamedObjectAccess, GivesEachUserASeparateMutex) {
    const auto own = StartObjectUser();
    const auto foreign = user_.StartObjectUser();
    ASSERT_EQ(own->Ask("mutex " + name_), "0");
    ASSERT_EQ(foreign->Ask("mutex " + name_), "0");
    ASSERT_EQ(own->Ask("acquire"), "0");
    EXPECT_EQ(foreign->Ask("acquire"), "0");
}

TEST_F(NamedObjectAccess, IsRefusedToOtherUsersFiles) {
    const std::string file = "/" + NamedObject::FileName("memory", name_.c_str());
    const auto own = StartObjectUser();
    const auto foreign = user_.StartObjectUser();
    ASSERT_EQ(own->Ask("memory " + name_), "0");
    ASSERT_EQ(own->Ask("look " + NamedObject::Folder() + file), "0");
    EXPECT_EQ(foreign->Ask("look " + NamedObject::Folder()), kRefusedAccess);
    EXPECT_EQ(foreign->Ask("look " + NamedObject::Folder() + file), kRefusedAccess);
    EXPECT_EQ(foreign->Ask("look " + NamedObject::Folder() + "/gate"), kRefusedAccess);
}

TEST_F(NamedObjectAccess, IsGrantedInAFolderOfTheUser) {
    user_.MakeFolder(0700);
    EXPECT_EQ(MakeBlock(), "0");
    EXPECT_EQ(MakeMutex(), "0");
}

TEST_F(NamedObjectAccess, IsRefusedInAFolderThatOthersMayEnter) {
    for (const mode_t mode : {0710U, 0701U, 0740U, 0704U, 0720U, 0702U, 0777U}) {
        user_.MakeFolder(mode);
        EXPECT_EQ(MakeBlock(), kRefusedAccess) << std::oct << mode;
        EXPECT_EQ(MakeMutex(), kRefusedAccess) << std::oct << mode;
        EXPECT_TRUE(std::filesystem::is_empty(user_.Folder())) << std::oct << mode;
        std::filesystem::remove(user_.Folder());
    }
}

TEST_F(NamedObjectAccess, IsRefusedInAFolderOfAnotherUser) {
    std::filesystem::create_directory(user_.Folder());
    for (const mode_t mode : {0700U, 0777U}) {
        ASSERT_EQ(::chmod(user_.Folder().c_str(), mode), 0);
        EXPECT_EQ(MakeBlock(), kRefusedAccess) << std::oct << mode;
        EXPECT_EQ(MakeMutex(), kRefusedAccess) << std::oct << mode;
        EXPECT_TRUE(std::filesystem::is_empty(user_.Folder())) << std::oct << mode;
    }
}

TEST_F(NamedObjectAccess, IsRefusedThroughALinkInPlaceOfTheFolder) {
    user_.GiveAway(directory_.Path());
    std::filesystem::permissions(directory_.Path(), std::filesystem::perms::owner_all);
    std::filesystem::create_directory_symlink(directory_.Path(), user_.Folder());
    user_.GiveAway(user_.Folder());
    EXPECT_EQ(MakeBlock(), std::to_string(ENOTDIR));
    EXPECT_EQ(MakeMutex(), std::to_string(ENOTDIR));
    EXPECT_TRUE(std::filesystem::is_empty(directory_.Path()));
}

TEST_F(NamedObjectAccess, IsRefusedThroughALinkInPlaceOfTheGate) {
    user_.MakeFolder(0700);
    const std::filesystem::path target = user_.Folder() / "target";
    user_.MakeFile(target, 0600);
    std::filesystem::create_symlink(target, user_.Folder() / "gate");
    EXPECT_EQ(MakeBlock(), kRefusedLink);
    EXPECT_EQ(MakeMutex(), kRefusedLink);
    EXPECT_FALSE(std::filesystem::exists(ObjectPath()));
}

TEST_F(NamedObjectAccess, IsRefusedThroughALinkInPlaceOfTheObject) {
    user_.MakeFolder(0700);
    const std::filesystem::path target = user_.Folder() / "target";
    user_.MakeFile(target, 0600);
    std::filesystem::create_symlink(target, ObjectPath());
    EXPECT_EQ(MakeBlock(), kRefusedLink);
    EXPECT_EQ(user_.StartObjectUser()->Ask("attach " + name_), kRefusedLink);
    EXPECT_EQ(ContentOf(target), "untouched");
}

TEST_F(NamedObjectAccess, IsRefusedThroughADanglingLinkInPlaceOfTheObject) {
    user_.MakeFolder(0700);
    const std::filesystem::path target = user_.Folder() / "target";
    std::filesystem::create_symlink(target, ObjectPath());
    EXPECT_EQ(MakeBlock(), kRefusedLink);
    EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_F(NamedObjectAccess, IsRefusedToAnObjectThatOthersMayAccess) {
    user_.MakeFolder(0700);
    for (const mode_t mode : {0610U, 0601U, 0640U, 0604U, 0666U}) {
        user_.MakeFile(ObjectPath(), mode);
        EXPECT_EQ(MakeBlock(), kRefusedAccess) << std::oct << mode;
        EXPECT_EQ(ContentOf(ObjectPath()), "untouched") << std::oct << mode;
        std::filesystem::remove(ObjectPath());
    }
}

TEST_F(NamedObjectAccess, IsRefusedThroughAGateThatOthersMayAccess) {
    user_.MakeFolder(0700);
    user_.MakeFile(user_.Folder() / "gate", 0660);
    EXPECT_EQ(MakeBlock(), kRefusedAccess);
    EXPECT_EQ(MakeMutex(), kRefusedAccess);
}

// Root is able to open the file, so the check of its owner must refuse it.
TEST_F(NamedObjectAccess, IsRefusedToAnObjectOfAnotherUser) {
    const auto own = StartObjectUser();
    const std::filesystem::path path = std::filesystem::path(NamedObject::Folder()) /
                                       NamedObject::FileName("memory", name_.c_str());
    ASSERT_EQ(own->Ask("mutex " + name_), "0");
    user_.MakeFile(path, 0600);
    EXPECT_EQ(own->Ask("memory " + name_), kRefusedAccess);
    EXPECT_EQ(own->Ask("attach " + name_), kRefusedAccess);
    EXPECT_EQ(ContentOf(path), "untouched");
    std::filesystem::remove(path);
}

TEST_F(NamedObjectAccess, IsRefusedToAnObjectThatIsNotARegularFile) {
    user_.MakeFolder(0700);
    ASSERT_EQ(::mkfifo(ObjectPath().c_str(), 0600), 0);
    user_.GiveAway(ObjectPath());
    EXPECT_EQ(MakeBlock(), kRefusedAccess);
    std::filesystem::remove(ObjectPath());
    std::filesystem::create_directory(ObjectPath());
    EXPECT_EQ(MakeBlock(), std::to_string(EISDIR));
}

TEST_F(NamedObjectAccess, IsRefusedThroughAGateThatIsNotARegularFile) {
    user_.MakeFolder(0700);
    ASSERT_EQ(::mkfifo((user_.Folder() / "gate").c_str(), 0600), 0);
    user_.GiveAway(user_.Folder() / "gate");
    EXPECT_EQ(MakeBlock(), kRefusedAccess);
    EXPECT_EQ(MakeMutex(), kRefusedAccess);
}

}  // namespace Quorvel::Testing
