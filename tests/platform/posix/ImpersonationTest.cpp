#include "platform/Impersonation.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <future>
#include <memory>
#include <string>

#include "platform/Directory.h"
#include "platform/Handles.h"
#include "platform/posix/ForeignUser.h"
#include "platform/posix/NamedObject.h"
#include "support/TemporaryDirectory.h"

// What root does as another user.
namespace Quorvel::Testing {

using Platform::CurrentUser;
using Platform::FindDirectory;
using Platform::Impersonation;
using Platform::NamedObject;
using Access = Platform::Directory::Access;

namespace {

class ImpersonationTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) { GTEST_SKIP() << "only root can act as other users"; }
    }
    void TearDown() override { SweepUp(name_); }

    const ForeignUser user_;
    const std::string name_ = UniqueName();
};

}  // namespace

TEST_F(ImpersonationTest, LastsAsLongAsTheObject) {
    std::promise<void> begun;
    auto otherThread = std::async(std::launch::async, [&] {
        begun.get_future().wait();
        return CurrentUser();
    });
    {
        const Impersonation asUser(user_.Id());
        EXPECT_EQ(CurrentUser(), user_.Id());
        begun.set_value();
        EXPECT_EQ(otherThread.get(), 0U);
        {
            const Impersonation again(user_.Id());
            const Impersonation asAnother(user_.Id() + 1);
            EXPECT_EQ(CurrentUser(), user_.Id() + 1);
        }
        EXPECT_EQ(CurrentUser(), user_.Id());
    }
    EXPECT_EQ(CurrentUser(), 0U);
    EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 1);
}

TEST_F(ImpersonationTest, LeavesAProcessUndumpableThatWasSo) {
    ::prctl(PR_SET_DUMPABLE, 0);
    { const Impersonation asUser(user_.Id()); }
    EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 0);
    ::prctl(PR_SET_DUMPABLE, 1);
}

// A thread that begins to act as a user while another one does so finds core dumps already switched
// off.
TEST_F(ImpersonationTest, OfTwoThreadsAtOnceLeavesAProcessDumpable) {
    std::promise<void> begun;
    std::promise<void> otherBegun;
    std::promise<void> ended;
    auto otherThread = std::async(std::launch::async, [&] {
        begun.get_future().wait();
        const Impersonation asUserToo(user_.Id());
        otherBegun.set_value();
        ended.get_future().wait();
    });
    {
        const Impersonation asUser(user_.Id());
        begun.set_value();
        otherBegun.get_future().wait();
    }
    ended.set_value();
    otherThread.get();
    EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 1);
    ::prctl(PR_SET_DUMPABLE, 1);
}

TEST_F(ImpersonationTest, IsForRootAlone) {
    ASSERT_EQ(::seteuid(user_.Id()), 0);  // could still act as root, which is its real user
    {
        const Impersonation asRoot(0);
        EXPECT_EQ(CurrentUser(), user_.Id());
    }
    ASSERT_EQ(::seteuid(0), 0);
    ::prctl(PR_SET_DUMPABLE, 1);
}

TEST_F(ImpersonationTest, OfTheProcessItselfChangesNothing) {
    const Impersonation asSelf(Platform::kSelf);
    EXPECT_EQ(CurrentUser(), 0U);
}

TEST_F(ImpersonationTest, ReachesTheObjectsOfTheUser) {
    const auto user = user_.StartObjectUser();
    ASSERT_EQ(user->Ask("memory " + name_), "0");
    EXPECT_EQ(user->Ask("write 5"), "written");
    MemoryHandle memory;
    EXPECT_FALSE(memory.Open(name_));
    {
        const Impersonation asUser(user_.Id());
        ASSERT_TRUE(memory.Open(name_));
    }
    memory.Map(4096)[0]++;
    EXPECT_EQ(user->Ask("read"), "6");
}

TEST_F(ImpersonationTest, MakesObjectsForTheUserThatCloseWithoutIt) {
    MemoryHandle memory;
    {
        const Impersonation asUser(user_.Id());
        ASSERT_TRUE(memory.Create(name_, 4096));
    }
    const auto user = user_.StartObjectUser();
    EXPECT_EQ(user->Ask("attach " + name_), "0");
    user->Ask("close");
    memory.Close();
    EXPECT_FALSE(
        std::filesystem::exists(user_.Folder() / NamedObject::FileName("memory", name_.c_str())));
    EXPECT_EQ(user->Ask("attach " + name_), std::to_string(ENOENT));
}

TEST_F(ImpersonationTest, GivesAMutexForEachUser) {
    const MutexHandle own(name_);
    std::unique_ptr<MutexHandle> users;
    {
        const Impersonation asUser(user_.Id());
        users = std::make_unique<MutexHandle>(name_);
    }
    ASSERT_EQ(users->Acquire(0), kAcquired);
    EXPECT_EQ(OnAnotherThread([&] { return own.Acquire(0); }), kAcquired);
    const auto user = user_.StartObjectUser();
    ASSERT_EQ(user->Ask("mutex " + name_), "0");
    EXPECT_EQ(user->Ask("acquire"), std::to_string(kTimedOut));
    users->Release();
    EXPECT_EQ(user->Ask("acquire"), std::to_string(kAcquired));
}

// The thread owns the mutex until the thread ends or opens it again.
TEST_F(ImpersonationTest, LeavesAThreadTheMutexThatItClosesWhileItOwnsIt) {
    const auto user = user_.StartObjectUser();
    ASSERT_EQ(user->Ask("mutex " + name_), "0");
    OnAnotherThread([&] {
        {
            const Impersonation asUser(user_.Id());
            const MutexHandle users(name_);
            EXPECT_EQ(users.Acquire(0), kAcquired);
        }
        const MutexHandle own(name_);
        EXPECT_EQ(user->Ask("acquire"), std::to_string(kTimedOut));
    });
    EXPECT_EQ(user->Ask("acquire"), std::to_string(kAbandoned));
}

TEST_F(ImpersonationTest, IsForTheOwnerOfADirectory) {
    const TemporaryDirectory directory;
    const std::string path = directory.Path().string();
    user_.GiveAway(directory.Path());
    const Platform::Directory found = FindDirectory(path.c_str(), "file");
    EXPECT_EQ(found.access, Access::Granted);
    EXPECT_EQ(found.user, user_.Id());
    user_.MakeFile(directory.File("file"), 0600);
    EXPECT_EQ(FindDirectory(path.c_str(), "file").access, Access::Granted);
    ASSERT_EQ(::chown(directory.File("file").c_str(), 0, 0), 0);
    EXPECT_EQ(FindDirectory(path.c_str(), "file").access, Access::BelongsToAnotherUser);
    EXPECT_EQ(FindDirectory(path.c_str(), "other").access, Access::Granted);
}

}  // namespace Quorvel::Testing
