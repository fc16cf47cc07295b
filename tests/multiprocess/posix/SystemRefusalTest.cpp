#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "multiprocess/Block.h"
#include "quorvel/Exceptions.h"
#include "quorvel/MutexObject.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

// The system's error codes that callers get if it refuses to create a mutex or a block.
namespace Quorvel::Testing {

namespace {

constexpr std::uint64_t kMemoryBytes = 4096;

template <typename Operation>
std::uint32_t ErrorOf(const Operation& operation) {
    try {
        operation();
    } catch (const Win32APICallFailedException& exception) { return exception.errorCode; }
    return 0;
}

void Make(const std::string& kind, const std::string& name) {
    if (kind == "mutex") {
        MutexObject mutex(name.c_str());
    } else if (kind == "wide mutex") {
        MutexObject mutex(std::wstring(name.begin(), name.end()).c_str());
    } else {
        Block().Initialize(name, kMemoryBytes);
    }
}

// Creates an object, tries again with no descriptor left, and sends the errors of both attempts.
// Arguments: KIND NAME.
QUORVEL_AGENT(MakerWithoutDescriptors) {
    const auto make = [&] { Make(arguments[0], arguments[1]); };
    AgentSend(std::to_string(ErrorOf(make)));

    const int lowestFree = ::dup(STDIN_FILENO);
    ::close(lowestFree);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t usual = std::exchange(limit.rlim_cur, static_cast<rlim_t>(lowestFree));
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const std::uint32_t error = ErrorOf(make);
    limit.rlim_cur = usual;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    AgentSend(std::to_string(error));
    return 0;
}

std::string ErrorWithoutDescriptors(const std::string& kind) {
    ChildProcess child("MakerWithoutDescriptors", {kind, UniqueName()});
    EXPECT_EQ(child.Receive(), "0");
    return child.Receive();
}

}  // namespace

TEST(SystemRefusal, OfAMutexCarriesTheErrorOfTheFailedCall) {
    EXPECT_EQ(ErrorWithoutDescriptors("mutex"), std::to_string(EMFILE));
    EXPECT_EQ(ErrorWithoutDescriptors("wide mutex"), std::to_string(EMFILE));
}

TEST(SystemRefusal, OfABlocksMutexCarriesTheErrorOfTheFailedCall) {
    EXPECT_EQ(ErrorWithoutDescriptors("block"), std::to_string(EMFILE));
}

TEST(SystemRefusal, OfABlockOfNoBytesIsAnInvalidArgument) {
    EXPECT_EQ(ErrorOf([] { Block().Initialize(UniqueName(), 0); }),
              static_cast<std::uint32_t>(EINVAL));
}

TEST(SystemRefusal, OfAViewLargerThanTheBlockIsADeniedAccess) {
    const std::string name = UniqueName();
    Block existing;
    existing.Initialize(name, kMemoryBytes);
    EXPECT_EQ(ErrorOf([&] { Block().Initialize(name, 2 * kMemoryBytes); }),
              static_cast<std::uint32_t>(EACCES));
}

}  // namespace Quorvel::Testing
