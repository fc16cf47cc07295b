#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "multiprocess/Block.h"
#include "platform/NamedMemory.h"
#include "quorvel/Exceptions.h"
#include "quorvel/MutexObject.h"
#include "support/TemporaryDirectory.h"

// The system's error codes that callers get if it refuses to create a mutex or a block.
namespace Quorvel::Testing {

namespace {

constexpr std::uint64_t kMemoryBytes = 4096;

template <typename Operation>
DWORD ErrorOf(const Operation& operation) {
    try {
        operation();
    } catch (const Win32APICallFailedException& exception) { return exception.errorCode; }
    return ERROR_SUCCESS;
}

}  // namespace

TEST(SystemRefusal, OfAMutexNameLongerThanAPath) {
    const std::string name(MAX_PATH + 1, 'x');
    EXPECT_EQ(ErrorOf([&] { MutexObject mutex(name.c_str()); }), DWORD{ERROR_FILENAME_EXCED_RANGE});
}

TEST(SystemRefusal, OfAMutexWithTheNameOfABlock) {
    const std::string name = UniqueName();
    Block block;
    block.Initialize(name, kMemoryBytes);
    EXPECT_EQ(ErrorOf([&] { MutexObject mutex(name.c_str()); }), DWORD{ERROR_INVALID_HANDLE});
    const std::wstring wideName(name.begin(), name.end());
    EXPECT_EQ(ErrorOf([&] { MutexObject mutex(wideName.c_str()); }), DWORD{ERROR_INVALID_HANDLE});
}

TEST(SystemRefusal, OfABlockWhoseMutexHasTheNameOfABlock) {
    const std::string name = UniqueName();
    Block taker;
    taker.Initialize(name + "_mutex", kMemoryBytes);
    EXPECT_EQ(ErrorOf([&] { Block().Initialize(name, kMemoryBytes); }),
              DWORD{ERROR_INVALID_HANDLE});
}

TEST(SystemRefusal, OfABlockWithTheNameOfAMutex) {
    const std::string name = UniqueName();
    const MutexObject taker(name.c_str());
    EXPECT_EQ(ErrorOf([&] { Block().Initialize(name, kMemoryBytes); }),
              DWORD{ERROR_INVALID_HANDLE});
}

TEST(SystemRefusal, OfABlockOfNoBytes) {
    EXPECT_EQ(ErrorOf([] { Block().Initialize(UniqueName(), 0); }), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(SystemRefusal, OfAViewLargerThanTheBlock) {
    const std::string name = UniqueName();
    Block existing;
    existing.Initialize(name, kMemoryBytes);
    EXPECT_EQ(ErrorOf([&] { Block().Initialize(name, 2 * kMemoryBytes); }),
              DWORD{ERROR_ACCESS_DENIED});
}

}  // namespace Quorvel::Testing
