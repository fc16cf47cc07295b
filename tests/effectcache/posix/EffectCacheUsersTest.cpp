#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/CacheClient.h"
#include "platform/posix/ForeignUser.h"
#include "support/Agent.h"
#include "support/AgentCommandLine.h"
#include "support/ChildProcess.h"

// Which users share a cache on Linux.
namespace Quorvel::Testing {

namespace {

// Becomes another user and runs another agent. Arguments: the user, the agent, its arguments.
QUORVEL_AGENT(AsUser) {
    const auto user = static_cast<uid_t>(std::stoul(arguments[0]));
    // A process that has changed its user may no longer inspect itself, which a leak checker has to
    // do.
    if (::setgid(user) != 0 || ::setuid(user) != 0 || ::prctl(PR_SET_DUMPABLE, 1) != 0) {
        return 1;
    }
    std::vector<std::string> words(arguments.begin(), arguments.end());
    words[1] = std::string(kAgentOption) + words[1];
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    int exitCode = 1;
    RunRequestedAgent(static_cast<int>(argv.size()), argv.data(), exitCode);
    return exitCode;
}

uid_t OwnerOf(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_uid;
}

// A directory that belongs to one user and that all users may write to.
class EffectCacheUsers : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) { GTEST_SKIP() << "only root can become other users"; }
        std::filesystem::create_directory(folder_);
        std::filesystem::permissions(folder_, std::filesystem::perms::all);
        owner_.GiveAway(folder_);
    }

    static std::unique_ptr<ChildProcess> Start(const ForeignUser& user, const std::string& agent,
                                               const std::vector<std::string>& arguments) {
        std::vector<std::string> words{std::to_string(user.Id()), agent};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return std::make_unique<ChildProcess>("AsUser", words);
    }
    std::unique_ptr<ChildProcess> StartCache(const ForeignUser& user) const {
        return Start(user, "CacheUser", {folder_.string()});
    }

    const ForeignUser owner_{0};
    const ForeignUser other_{1};
    const TemporaryDirectory parent_;
    const std::filesystem::path folder_ = parent_.Path() / "cache";
    const std::filesystem::path file_ = folder_ / "vornFxoCache.dat";
};

TEST_F(EffectCacheUsers, OnlyTheOwnerOfTheDirectoryUsesIt) {
    const auto owner = StartCache(owner_);
    EXPECT_EQ(owner->Receive(), "enabled");
    EXPECT_EQ(owner->Ask("add x x 100"), "added");
    EXPECT_EQ(owner->Ask("save"), "saved");
    const Bytes before = ReadWholeFile(file_.string());
    ASSERT_EQ(::chmod(file_.c_str(), 0666), 0);
    const auto other = StartCache(other_);
    EXPECT_EQ(other->Receive(), "inert");
    EXPECT_EQ(other->Ask("find x"), "absent");
    EXPECT_EQ(other->Wait(), 0);
    EXPECT_EQ(ReadWholeFile(file_.string()), before);
}

TEST_F(EffectCacheUsers, OtherUsersDoNotMakeTheFile) {
    EXPECT_EQ(StartCache(other_)->Receive(), "inert");
    EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(EffectCacheUsers, FileOfAnotherUserIsNotUsed) {
    other_.MakeFile(file_, 0666);
    EXPECT_EQ(StartCache(owner_)->Receive(), "inert");
    EXPECT_EQ(StartCache(other_)->Receive(), "inert");
    EXPECT_FALSE(CacheClient(folder_.string())->IsEnabled());
    EXPECT_EQ(std::filesystem::file_size(file_), std::string("untouched").size());
}

TEST_F(EffectCacheUsers, RootSharesTheCacheOfTheOwner) {
    const auto owner = StartCache(owner_);
    ASSERT_EQ(owner->Receive(), "enabled");
    EXPECT_EQ(owner->Ask("add x x 100"), "added");
    EXPECT_EQ(owner->Ask("save"), "saved");
    CacheClient root(folder_.string());
    EXPECT_EQ(root.Find("x"), EffectBytes("x", 100));
    EXPECT_EQ(owner->Ask("add y y 100"), "added");
    EXPECT_EQ(owner->Ask("save"), "saved");
    EXPECT_EQ(root.Find("y"), EffectBytes("y", 100));  // noticed by the owner's stamp
    root.Add("z", EffectBytes("z", 100));
    root.Close();
    EXPECT_NE(owner->Ask("find z"), "absent");
}

// Root opens the cache first, so it makes the file and the objects.
TEST_F(EffectCacheUsers, RootMakesTheCacheForTheOwner) {
    CacheClient root(folder_.string());
    ASSERT_TRUE(root->IsEnabled());
    EXPECT_EQ(OwnerOf(file_), owner_.Id());
    EXPECT_EQ(OwnerOf(owner_.Folder()), owner_.Id());
    for (const auto& object : std::filesystem::directory_iterator(owner_.Folder())) {
        EXPECT_EQ(OwnerOf(object.path()), owner_.Id()) << object.path();
    }
    const auto owner = StartCache(owner_);
    EXPECT_EQ(owner->Receive(), "enabled");
    root.Add("x", EffectBytes("x", 100));
    root->ForceSaveToFile();
    EXPECT_NE(owner->Ask("find x"), "absent");
    root.Close();
    EXPECT_EQ(owner->Ask("add y y 100"), "added");
    EXPECT_EQ(owner->Ask("save"), "saved");
    EXPECT_EQ(owner->Wait(), 0);
    const std::filesystem::directory_iterator left(owner_.Folder());
    EXPECT_EQ(std::distance(begin(left), end(left)), 1);  // the gate
}

TEST_F(EffectCacheUsers, RootAndTheOwnerFillTheCacheTogether) {
    constexpr int kEffects = 2000;
    const std::vector<std::string> arguments{folder_.string(), "owner", std::to_string(kEffects)};
    const auto owner = Start(owner_, "CacheFiller", arguments);
    ChildProcess root("CacheFiller", {arguments[0], "root", arguments[2]});
    ASSERT_EQ(owner->Receive(), "ready");
    ASSERT_EQ(root.Receive(), "ready");
    owner->Send("fill");
    root.Send("fill");
    EXPECT_EQ(owner->Receive(), "done");
    EXPECT_EQ(root.Receive(), "done");
    CacheClient cache(folder_.string());
    EXPECT_EQ(cache.InFile(), 2U * kEffects);
    for (int number = 0; number < kEffects; number += 7) {
        for (const char* const by : {"owner-", "root-"}) {
            EXPECT_TRUE(cache.Find(by + std::to_string(number))) << by << number;
        }
    }
}

// A link that the owner has planted must not lead root to where the owner may not write.
TEST_F(EffectCacheUsers, RootReachesNoMoreThanTheOwner) {
    const std::filesystem::path target = parent_.Path() / "target";
    std::filesystem::create_symlink(target, file_);
    owner_.GiveAway(file_);
    EXPECT_FALSE(CacheClient(folder_.string())->IsEnabled());
    EXPECT_FALSE(std::filesystem::exists(target));
    std::ofstream(target) << "untouched";
    EXPECT_FALSE(CacheClient(folder_.string())->IsEnabled());
    EXPECT_EQ(std::filesystem::file_size(target), std::string("untouched").size());
}

TEST_F(EffectCacheUsers, RootKeepsItsRights) {
    CacheClient root(folder_.string());
    root.Add("x", EffectBytes("x", 100));
    root->ForceSaveToFile();
    const std::filesystem::path own = parent_.Path() / "own";
    std::ofstream(own) << "text";
    EXPECT_EQ(OwnerOf(own), 0U);
    EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 1);
}

}  // namespace

}  // namespace Quorvel::Testing
