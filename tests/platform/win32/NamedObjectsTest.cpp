#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "platform/Handles.h"
#include "platform/SystemError.h"
#include "support/TemporaryDirectory.h"

// Callers see the system's error numbers.
static_assert(ERROR_PATH_NOT_FOUND == 3);
static_assert(ERROR_ACCESS_DENIED == 5);
static_assert(ERROR_INVALID_HANDLE == 6);
static_assert(ERROR_INVALID_PARAMETER == 87);
static_assert(ERROR_FILENAME_EXCED_RANGE == 206);

namespace Quorvel::Testing {

TEST(NamedMutexOnWindows, OfANameLongerThanAPathIsRefused) {
    const std::string name(MAX_PATH + 1, 'x');
    EXPECT_EQ(Platform::OpenNamedMutex(name.c_str()), nullptr);
    EXPECT_EQ(Platform::LastSystemError(), DWORD{ERROR_FILENAME_EXCED_RANGE});
}

TEST(NamedMutexOnWindows, OfANameInAnUnknownNamespaceIsRefused) {
    const std::string name = UniqueName() + "\\mutex";
    EXPECT_EQ(Platform::OpenNamedMutex(name.c_str()), nullptr);
    EXPECT_EQ(Platform::LastSystemError(), DWORD{ERROR_PATH_NOT_FOUND});
}

TEST(NamedMutexOnWindows, WithTheNameOfABlockIsRefused) {
    const std::string name = UniqueName();
    MemoryHandle memory;
    ASSERT_TRUE(memory.Create(name, 4096));
    EXPECT_EQ(Platform::OpenNamedMutex(name.c_str()), nullptr);
    EXPECT_EQ(Platform::LastSystemError(), DWORD{ERROR_INVALID_HANDLE});
    const std::wstring wideName(name.begin(), name.end());
    EXPECT_EQ(Platform::OpenNamedMutex(wideName.c_str()), nullptr);
    EXPECT_EQ(Platform::LastSystemError(), DWORD{ERROR_INVALID_HANDLE});
}

TEST(NamedMemoryOnWindows, WithTheNameOfAMutexIsRefused) {
    const std::string name = UniqueName();
    const MutexHandle mutex(name);
    MemoryHandle memory;
    EXPECT_FALSE(memory.Open(name));
    EXPECT_EQ(Platform::LastSystemError(), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_FALSE(memory.Create(name, 4096));
    EXPECT_EQ(Platform::LastSystemError(), DWORD{ERROR_INVALID_HANDLE});
}

TEST(NamedMemoryOnWindows, OfNoBytesIsAnInvalidParameter) {
    MemoryHandle memory;
    EXPECT_FALSE(memory.Create(UniqueName(), 0));
    EXPECT_EQ(Platform::LastSystemError(), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(NamedMemoryOnWindows, IsAnOrdinaryFileMappingWithItsNameAndSize) {
    const std::string name = UniqueName();
    MemoryHandle memory;
    ASSERT_TRUE(memory.Create(name, 8192));
    memory.Map(8192)[8191] = 3;
    const HANDLE mapping = ::OpenFileMappingA(FILE_MAP_READ, FALSE, name.c_str());
    ASSERT_NE(mapping, nullptr);
    const auto* const view =
        static_cast<const unsigned char*>(::MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 8192));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view[8191], 3);
    ::UnmapViewOfFile(view);
    ::CloseHandle(mapping);
}

TEST(NamedMutexOnWindows, IsAnOrdinaryMutexWithItsName) {
    const std::string name = UniqueName();
    const MutexHandle mutex(name);
    ASSERT_EQ(mutex.Acquire(0), kAcquired);
    const HANDLE system = ::OpenMutexA(SYNCHRONIZE, FALSE, name.c_str());
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(OnAnotherThread([&] { return ::WaitForSingleObject(system, 0); }),
              DWORD{WAIT_TIMEOUT});
    ::CloseHandle(system);
    mutex.Release();
}

}  // namespace Quorvel::Testing
