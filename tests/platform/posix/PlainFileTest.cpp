#include "platform/PlainFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/posix/SystemFault.h"
#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"

// Things that only POSIX systems can have at a path, and calls that the system refuses.
namespace Quorvel::Testing {

namespace {

class PlainFileOnPosix : public ::testing::Test {
protected:
    // Expects that both functions refuse what is at the path.
    void ExpectRefused() const {
        errno = 0;
        EXPECT_EQ(Platform::CreateNewFile(path_.c_str()), nullptr);
        EXPECT_EQ(errno, EEXIST);
        EXPECT_EQ(Platform::OpenPlainFile(path_.c_str()), nullptr);
        EXPECT_EQ(errno, ELOOP);
    }

    static bool IsInherited(std::FILE* file) {
        return (::fcntl(::fileno(file), F_GETFD) & FD_CLOEXEC) == 0;
    }

    // The lowest number that the next file can get.
    static int NextDescriptor() {
        const int descriptor = ::dup(STDIN_FILENO);
        ::close(descriptor);
        return descriptor;
    }

    const TemporaryDirectory directory_;
    const std::string path_ = directory_.File("file");
};

}  // namespace

TEST_F(PlainFileOnPosix, IsNeitherMadeNorOpenedThroughALink) {
    const std::string target = directory_.File("target");
    std::filesystem::create_symlink(target, path_);
    ExpectRefused();
    EXPECT_FALSE(std::filesystem::exists(target));
    std::ofstream(target) << "old";
    ExpectRefused();
    EXPECT_EQ(std::filesystem::file_size(target), 3u);
}

// Opening it would wait for a writer.
TEST_F(PlainFileOnPosix, IsNoFifo) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    ExpectRefused();
}

TEST_F(PlainFileOnPosix, IsNoSocket) {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(descriptor, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path_.size(), sizeof address.sun_path);
    std::strcpy(address.sun_path, path_.c_str());
    ASSERT_EQ(::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(descriptor);
    ExpectRefused();
}

TEST_F(PlainFileOnPosix, IsNoDevice) {
    EXPECT_EQ(Platform::OpenPlainFile("/dev/null"), nullptr);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(PlainFileOnPosix, IsNotInheritedByOtherPrograms) {
    std::FILE* const made = Platform::CreateNewFile(path_.c_str());
    ASSERT_NE(made, nullptr);
    EXPECT_FALSE(IsInherited(made));
    std::fclose(made);
    std::FILE* const opened = Platform::OpenPlainFile(path_.c_str());
    ASSERT_NE(opened, nullptr);
    EXPECT_FALSE(IsInherited(opened));
    std::fclose(opened);
}

TEST_F(PlainFileOnPosix, HasThePermissionsThatTheProcessGivesNewFiles) {
    const mode_t mask = ::umask(027);
    std::FILE* const made = Platform::CreateNewFile(path_.c_str());
    ::umask(mask);
    ASSERT_NE(made, nullptr);
    std::fclose(made);
    EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms{0640});
}

TEST_F(PlainFileOnPosix, ReportsTheErrorOfARefusedCallAndStaysClosed) {
    std::ofstream(path_) << "old";
    const int next = NextDescriptor();
    for (const SystemCall call : {SystemCall::Open, SystemCall::Status}) {
        const SystemFault fault(call, EIO);
        EXPECT_EQ(Platform::OpenPlainFile(path_.c_str()), nullptr);
        EXPECT_EQ(errno, EIO);
        EXPECT_TRUE(fault.IsSpent());
    }
    {
        const SystemFault fault(SystemCall::Open, ENOSPC);
        EXPECT_EQ(Platform::CreateNewFile(directory_.File("new").c_str()), nullptr);
        EXPECT_EQ(errno, ENOSPC);
    }
    {
        const StdioFault fault(StdioCall::Open, ENOMEM);
        EXPECT_EQ(Platform::OpenPlainFile(path_.c_str()), nullptr);
        EXPECT_EQ(Platform::CreateNewFile(directory_.File("new").c_str()), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
    EXPECT_EQ(NextDescriptor(), next);
    EXPECT_FALSE(std::filesystem::exists(directory_.File("new")));
}

}  // namespace Quorvel::Testing
