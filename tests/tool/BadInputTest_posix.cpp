#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "tool/ToolTest.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Terminal.h"

// Files of other users, named pipes, devices, and processes that have a file open. Windows lacks
// these, or gives no information about them.
namespace Quorvel::Tool {
namespace {

using testing::HasSubstr;

class PosixInputTest : public ToolTest {};

TEST_F(PosixInputTest, ACacheOfAnotherUserIsReadOnlyOffline) {
    if (::geteuid() != 0) { GTEST_SKIP() << "only root can give files away"; }
    constexpr uid_t kSomebody = 12345;
    MakeCache(ThreeEffects());
    ASSERT_EQ(::chown(CacheFile().c_str(), kSomebody, static_cast<gid_t>(-1)), 0);
    EXPECT_EQ(Run({"list", cache_}), kFailed);
    EXPECT_THAT(err_, HasSubstr("belongs to another user"));
    EXPECT_EQ(Run({"list", cache_, "--offline"}), kDone);
}

TEST_F(PosixInputTest, AFolderThatCannotBeSearchedIsNotAnEmptyOne) {
    if (::geteuid() != 0) { GTEST_SKIP() << "only root can become another user"; }
    constexpr uid_t kSomebody = 12345;
    MakeCache(ThreeEffects());
    for (const mode_t mode : {mode_t{0700}, mode_t{0744}}) {
        ASSERT_EQ(::chmod(cache_.c_str(), mode), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            const bool isOther = ::setuid(kSomebody) == 0;
            const int code = Run({"info", cache_, "--offline"});
            const bool isClear = err_.find("Permission denied") != std::string::npos;
            ::_exit(isOther && isClear ? code : 100);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), kFailed);
    }
}

TEST_F(PosixInputTest, AFileThatMayNotBeReadOrChangedIsNotADamagedOne) {
    if (::geteuid() != 0) { GTEST_SKIP() << "only root can become another user"; }
    constexpr uid_t kSomebody = 12345;
    MakeCache(ThreeEffects());
    const std::string copy = File("copy.dat");
    std::filesystem::copy_file(CacheFile(), copy);
    ASSERT_EQ(::chmod(cache_.c_str(), 0777), 0);
    const std::vector<std::vector<std::string>> reading = {
        {"info", copy}, {"list", copy}, {"check", copy}, {"map", copy}, {"get", copy, "a"}};
    const std::vector<std::vector<std::string>> changing = {{"remove", copy, "a"},
                                                            {"compact", copy},
                                                            {"clear", copy, "-y"},
                                                            {"merge", copy, copy + "x"},
                                                            {"put", copy, "a", copy}};
    for (const auto& [mode, commands] :
         {std::pair(mode_t{0}, &reading), std::pair(mode_t{0}, &changing),
          std::pair(mode_t{0444}, &changing)}) {
        std::filesystem::copy_file(CacheFile(), copy + "x",
                                   std::filesystem::copy_options::overwrite_existing);
        ASSERT_EQ(::chmod(copy.c_str(), mode), 0);
        for (const std::vector<std::string>& command : *commands) {
            const pid_t child = ::fork();
            if (child == 0) {
                const bool isOther = ::setuid(kSomebody) == 0;
                const int code = Run(command);
                const bool isClear = err_.find("Permission denied") != std::string::npos;
                ::_exit(isOther && isClear ? code : 100);
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            EXPECT_EQ(WEXITSTATUS(status), kFailed) << command[0] << ' ' << mode;
        }
    }
}

TEST_F(PosixInputTest, InfoSaysWhyHostsCannotUseACache) {
    if (::geteuid() != 0) { GTEST_SKIP() << "only root can become another user"; }
    constexpr uid_t kSomebody = 12345;
    const struct {
        mode_t directory;
        mode_t file;
        std::string problem;
    } kCases[] = {
        {0700, 0600, ""},
        {0700, 0444, "the file can't be opened for writing: Permission denied"},
        {0500, 0600, "no files can be made in the directory: Permission denied"},
        {0500, 0444, "the file can't be opened for writing: Permission denied"},
    };
    MakeCache(ThreeEffects());
    ASSERT_EQ(::chown(cache_.c_str(), kSomebody, static_cast<gid_t>(-1)), 0);
    ASSERT_EQ(::chown(CacheFile().c_str(), kSomebody, static_cast<gid_t>(-1)), 0);
    for (const auto& [directory, file, problem] : kCases) {
        ASSERT_EQ(::chmod(cache_.c_str(), directory), 0);
        ASSERT_EQ(::chmod(CacheFile().c_str(), file), 0);
        const auto isAsExpected = [&, &problem = problem] {
            const Json info = RunJson({"info", cache_});
            EXPECT_EQ(info["hostProblem"], problem.empty() ? Json() : Json(problem));
            EXPECT_EQ(Run({"info", cache_}), kDone);
            EXPECT_EQ(out_.find("\nhosts ") == std::string::npos, problem.empty()) << out_;
            EXPECT_THAT(out_, HasSubstr(problem));
            EXPECT_EQ(RunJson({"info", cache_, "--offline"})["hostProblem"], Json());
            return !HasFailure();
        };
        // As the user itself, and as root, which acts as that user.
        EXPECT_TRUE(isAsExpected());
        const pid_t child = ::fork();
        if (child == 0) { ::_exit(::setuid(kSomebody) == 0 && isAsExpected() ? 0 : 100); }
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), 0) << problem;
    }
}

TEST_F(PosixInputTest, InfoSaysWhyHostsCannotMakeACache) {
    if (::geteuid() != 0) { GTEST_SKIP() << "only root can give a directory away"; }
    ASSERT_EQ(::chmod(cache_.c_str(), 0500), 0);
    ASSERT_EQ(::chown(cache_.c_str(), 12345, static_cast<gid_t>(-1)), 0);
    EXPECT_EQ(Run({"info", cache_}), kFailed);
    EXPECT_THAT(err_, HasSubstr("hosts can't make one: no files can be made in the directory: "
                                "Permission denied"));
}

TEST_F(PosixInputTest, WhatIsNeitherFileNorDirectoryIsRefused) {
    ASSERT_EQ(::mkfifo(File("fifo").c_str(), 0600), 0);
    EXPECT_EQ(Run({"list", File("fifo")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("neither a directory nor a file"));
}

TEST_F(PosixInputTest, AFullDeviceAsOutputIsAFailure) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"get", cache_, "a", "-o", "/dev/full"}), kFailed);
    EXPECT_THAT(err_, HasSubstr("/dev/full: the output can't be written: No space left"));
}

TEST_F(PosixInputTest, ProcessesThatHaveTheFileOpenAreFound) {
    MakeCache(ThreeEffects());
    std::vector<Holder> holders;
    ASSERT_TRUE(FindHolders(CacheFile(), holders));
    EXPECT_THAT(holders, testing::IsEmpty());
    const pid_t child = ::fork();
    if (child == 0) {
        const std::ifstream file(CacheFile());
        for (;;) {
            ::pause();
        }
    }
    while (holders.empty()) {
        ASSERT_TRUE(FindHolders(CacheFile(), holders));
    }
    EXPECT_EQ(holders[0].process, static_cast<std::uint32_t>(child));
    EXPECT_THAT(holders[0].name, HasSubstr("quorvel_tool"));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

TEST_F(PosixInputTest, MessagesOfAClosedStreamGoIntoNoFile) {
    const pid_t child = ::fork();
    if (child == 0) {
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            ::close(stream);
        }
        PrepareStandardStreams();
        ::_exit(::open(File("file").c_str(), O_CREAT | O_WRONLY, 0600));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_GT(WEXITSTATUS(status), STDERR_FILENO);
}

TEST_F(PosixInputTest, ALinkToACacheTakesItsLock) {
    MakeCache(ThreeEffects());
    std::filesystem::create_symlink(CacheFile(), File("link.dat"));
    std::istringstream in;
    std::ostringstream out;
    const Session session{in, out, out};
    const Cache cache(session, File("link.dat"));
    EXPECT_TRUE(cache.IsShared());
    EXPECT_TRUE(std::filesystem::equivalent(cache.Path(), CacheFile()));
    EXPECT_TRUE(cache.Path().ends_with("vornFxoCache.dat"));
}

}  // namespace
}  // namespace Quorvel::Tool
