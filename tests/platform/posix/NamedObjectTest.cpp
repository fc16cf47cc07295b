#include "platform/posix/NamedObject.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/Handles.h"
#include "platform/SystemError.h"
#include "platform/posix/ForeignUser.h"
#include "platform/posix/NamedObjectPath.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

using Platform::NamedObject;

namespace {

constexpr std::size_t kObjectBytes = 4096;
constexpr char kKind[] = "test";

std::unique_ptr<NamedObject> OpenOrCreate(const std::string& name,
                                          std::size_t bytes = kObjectBytes) {
    return NamedObject::Open(kKind, name.c_str(), NamedObject::IfAbsent::Create, bytes);
}

mode_t ModeOf(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, ::geteuid());
    return status.st_mode & 07777;
}

// True if this process has mapped a file whose name contains the text.
bool IsMapped(const std::string& text) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        if (line.find(text) != std::string::npos) { return true; }
    }
    return false;
}

class NamedObjectFile : public ::testing::Test {
protected:
    void TearDown() override { SweepUp(name_); }

    const std::string name_ = UniqueName();
};
using NamedMutexOnPosix = NamedObjectFile;
using NamedMemoryOnPosix = NamedObjectFile;

std::string FirstByte(const NamedObject& object) {
    char byte = 'x';
    EXPECT_EQ(::pread(object.Descriptor(), &byte, 1, 0), 1);
    return std::to_string(byte);
}

}  // namespace

TEST(NamedObjectFileName, KeepsLettersDigitsAndUnderscores) {
    EXPECT_EQ(NamedObject::FileName("memory", "The_Name_0129"), "memory-The_Name_0129");
}

TEST(NamedObjectFileName, WritesOtherBytesAsTheirHexadecimalCodes) {
    EXPECT_EQ(NamedObject::FileName("mutex", "a/b.c\xC3%-~ "), "mutex-a%2fb%2ec%c3%25%2d%7e%20");
}

TEST(NamedObjectFileName, NeverLeavesTheFolderOrNamesTheGate) {
    for (const char* name : {"", ".", "..", "../x", "gate", "/"}) {
        const std::string file = NamedObject::FileName("memory", name);
        EXPECT_EQ(file.find('/'), std::string::npos) << name;
        EXPECT_TRUE(file.starts_with("memory-")) << name;
    }
}

TEST(NamedObjectFileName, DiffersBetweenKinds) {
    EXPECT_NE(NamedObject::FileName("memory", "x"), NamedObject::FileName("mutex", "x"));
}

TEST(NamedObjectFileName, StaysShortAndDistinctForLongNames) {
    const std::string beginning(1000, 'n');
    std::set<std::string> files;
    for (int index = 0; index < 1000; ++index) {
        const std::string name = beginning + std::to_string(index);
        const std::string file = NamedObject::FileName("memory", name.c_str());
        EXPECT_LE(file.size(), 200U);
        EXPECT_EQ(file, NamedObject::FileName("memory", name.c_str()));
        files.insert(file);
    }
    EXPECT_EQ(files.size(), 1000U);
}

TEST(NamedObjectFileName, OfALongNameDiffersWhereverTheNameDiffers) {
    const std::string name(300, 'n');
    std::set<std::string> files{NamedObject::FileName("memory", name.c_str())};
    for (std::size_t index = 0; index < name.size(); ++index) {
        std::string other = name;
        other[index] = 'm';
        files.insert(NamedObject::FileName("memory", other.c_str()));
    }
    EXPECT_EQ(files.size(), name.size() + 1);
}

TEST_F(NamedObjectFile, OfALongNameIsAnotherObjectForEachName) {
    const std::string beginning = name_ + std::string(5000, '/');
    const auto first = OpenOrCreate(beginning + "a");
    const auto second = OpenOrCreate(beginning + "b");
    ASSERT_TRUE(first && second);
    ASSERT_EQ(::pwrite(first->Descriptor(), "\7", 1, 0), 1);
    EXPECT_EQ(FirstByte(*second), "0");
    const auto again = OpenOrCreate(beginning + "a");
    ASSERT_TRUE(again);
    EXPECT_EQ(FirstByte(*again), "7");
}

TEST_F(NamedObjectFile, IsAPrivateFileInAPrivateFolder) {
    const auto object = OpenOrCreate(name_);
    ASSERT_TRUE(object);
    EXPECT_EQ(NamedObject::Folder(), "/dev/shm/quorvel-" + std::to_string(::geteuid()));
    EXPECT_EQ(ModeOf(NamedObject::Folder()), mode_t{0700});
    EXPECT_EQ(ModeOf(NamedObject::Folder() + "/gate"), mode_t{0600});
    EXPECT_EQ(ModeOf(PathOf(kKind, name_)), mode_t{0600});
    EXPECT_EQ(object->Size(), kObjectBytes);
}

TEST_F(NamedObjectFile, OfOneNameAndAnotherKindIsAnotherObject) {
    const MutexHandle mutex(name_);
    MemoryHandle memory;
    EXPECT_FALSE(memory.Open(name_));
    EXPECT_TRUE(memory.Create(name_, kObjectBytes));
    EXPECT_TRUE(mutex.IsOpen());
    EXPECT_TRUE(std::filesystem::exists(PathOf("mutex", name_)));
    EXPECT_TRUE(std::filesystem::exists(PathOf("memory", name_)));
}

TEST_F(NamedObjectFile, IsRemovedWhenItsLastHolderLeaves) {
    auto first = OpenOrCreate(name_);
    auto second = OpenOrCreate(name_);
    ASSERT_TRUE(first && second);
    first.reset();
    EXPECT_TRUE(std::filesystem::exists(PathOf(kKind, name_)));
    second.reset();
    EXPECT_FALSE(std::filesystem::exists(PathOf(kKind, name_)));
}

TEST_F(NamedObjectFile, OfABlockOrMutexIsRemovedWhenItsLastHolderLeaves) {
    MutexHandle mutex(name_);
    MemoryHandle memory;
    ASSERT_TRUE(memory.Create(name_, kObjectBytes));
    const auto other = StartObjectUser();
    ASSERT_EQ(other->Ask("memory " + name_), "0");
    ASSERT_EQ(other->Ask("mutex " + name_), "0");
    mutex.Close();
    memory.Close();
    EXPECT_TRUE(std::filesystem::exists(PathOf("mutex", name_)));
    EXPECT_TRUE(std::filesystem::exists(PathOf("memory", name_)));
    other->Ask("close");
    EXPECT_FALSE(std::filesystem::exists(PathOf("mutex", name_)));
    EXPECT_FALSE(std::filesystem::exists(PathOf("memory", name_)));
}

TEST_F(NamedObjectFile, InitialisesOnlyANewObject) {
    int calls = 0;
    const auto initialise = [&](int descriptor) {
        ++calls;
        return ::pwrite(descriptor, "\5", 1, 0) == 1;
    };
    const auto open = [&] {
        return NamedObject::Open(kKind, name_.c_str(), NamedObject::IfAbsent::Create, kObjectBytes,
                                 initialise);
    };
    auto first = open();
    auto second = open();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(FirstByte(*second), "5");
    first.reset();
    second.reset();
    EXPECT_TRUE(open());
    EXPECT_EQ(calls, 2);
}

TEST_F(NamedObjectFile, ThatCannotBeInitialisedLeavesNothingBehind) {
    const auto object = NamedObject::Open(kKind, name_.c_str(), NamedObject::IfAbsent::Create,
                                          kObjectBytes, [](int) {
                                              errno = EDOM;
                                              return false;
                                          });
    EXPECT_EQ(Platform::LastSystemError(), static_cast<std::uint32_t>(EDOM));
    EXPECT_FALSE(object);
    EXPECT_FALSE(std::filesystem::exists(PathOf(kKind, name_)));
}

TEST_F(NamedObjectFile, WhoseHolderWasKilledCannotBeOpened) {
    const auto killed = StartObjectUser();
    ASSERT_EQ(killed->Ask("memory " + name_), "0");
    killed->Ask("write 9");
    killed->Kill();
    const auto object =
        NamedObject::Open("memory", name_.c_str(), NamedObject::IfAbsent::Fail, kObjectBytes);
    EXPECT_EQ(Platform::LastSystemError(), static_cast<std::uint32_t>(ENOENT));
    EXPECT_FALSE(object);
    EXPECT_FALSE(std::filesystem::exists(PathOf("memory", name_)));
}

TEST_F(NamedObjectFile, WhoseHolderWasKilledStartsWithZerosAndItsNewSize) {
    const auto killed = StartObjectUser();
    ASSERT_EQ(killed->Ask("memory " + name_), "0");
    killed->Ask("write 9");
    killed->Kill();
    const auto object =
        NamedObject::Open("memory", name_.c_str(), NamedObject::IfAbsent::Create, 100);
    ASSERT_TRUE(object);
    EXPECT_EQ(object->Size(), 100U);
    EXPECT_EQ(FirstByte(*object), "0");
}

TEST_F(NamedObjectFile, WhoseHolderWasKilledIsRemovedWhenAnotherProcessCreatesItsFirstObject) {
    const std::string heldName = UniqueName();
    const auto holder = StartObjectUser();
    ASSERT_EQ(holder->Ask("memory " + heldName), "0");
    ASSERT_EQ(holder->Ask("write 7"), "written");
    const auto killed = StartObjectUser();
    ASSERT_EQ(killed->Ask("memory " + name_), "0");
    killed->Kill();

    const auto next = StartObjectUser();
    ASSERT_EQ(next->Ask("memory " + UniqueName()), "0");
    EXPECT_FALSE(std::filesystem::exists(PathOf("memory", name_)));
    const auto held =
        NamedObject::Open("memory", heldName.c_str(), NamedObject::IfAbsent::Fail, kObjectBytes);
    ASSERT_TRUE(held);
    EXPECT_EQ(FirstByte(*held), "7");
}

TEST_F(NamedObjectFile, ThatOthersMayAccessIsNotRemovedAsADeadObject) {
    const std::filesystem::path planted = PathOf(kKind, name_);
    OpenOrCreate(UniqueName());  // makes the folder
    std::ofstream(planted) << "planted";
    ASSERT_EQ(::chmod(planted.c_str(), 0644), 0);
    const auto next = StartObjectUser();
    ASSERT_EQ(next->Ask("memory " + UniqueName()), "0");
    EXPECT_EQ(next->Wait(), 0);
    EXPECT_TRUE(std::filesystem::exists(planted));
    std::filesystem::remove(planted);
}

TEST_F(NamedObjectFile, TellsALeavingHolderWhetherItIsTheLast) {
    const auto object = OpenOrCreate(name_);
    const auto other = StartObjectUser();
    ASSERT_EQ(other->Ask("memory " + name_), "0");
    const auto others = NamedObject::Open("memory", name_.c_str(), NamedObject::IfAbsent::Fail, 0);
    ASSERT_TRUE(object && others);
    errno = EDOM;
    EXPECT_TRUE(object->Leave());
    EXPECT_FALSE(others->Leave());
    EXPECT_FALSE(object->Leave());  // has left already
    EXPECT_EQ(errno, EDOM);
    EXPECT_TRUE(std::filesystem::exists(PathOf("memory", name_)));
}

TEST_F(NamedObjectFile, IsTheSameForAllHoldersAndAnotherOneAfterTheLast) {
    const auto first = OpenOrCreate(name_);
    const auto second = OpenOrCreate(name_);
    EXPECT_TRUE(first->IsSameFileAs(*second));
    first->Leave();
    EXPECT_TRUE(first->IsSameFileAs(*second));
    second->Leave();
    const MutexHandle between(name_);  // may get the inode number of the removed file
    EXPECT_FALSE(OpenOrCreate(UniqueName())->IsSameFileAs(*OpenOrCreate(name_)));
}

// A process that has closed an object may still have it mapped.
TEST_F(NamedObjectFile, OfAKilledHolderIsNotReused) {
    const auto killed = StartObjectUser();
    ASSERT_EQ(killed->Ask("memory " + name_), "0");
    const auto former = NamedObject::Open("memory", name_.c_str(), NamedObject::IfAbsent::Fail, 0);
    ASSERT_TRUE(former);
    killed->Ask("write 9");
    const int descriptor = ::dup(former->Descriptor());
    ASSERT_FALSE(former->Leave());
    ::flock(descriptor, LOCK_UN);
    killed->Kill();
    const auto object =
        NamedObject::Open("memory", name_.c_str(), NamedObject::IfAbsent::Create, kObjectBytes);
    ASSERT_TRUE(object);
    EXPECT_EQ(FirstByte(*object), "0");
    EXPECT_FALSE(object->IsSameFileAs(*former));
    char byte = 0;
    EXPECT_EQ(::pread(descriptor, &byte, 1, 0), 1);
    EXPECT_EQ(byte, 9);
    ::close(descriptor);
}

// A process that is forked while the gate is locked also has the gate's file open.
TEST_F(NamedObjectFile, CanBeOpenedWhileAProcessForkedUnderTheGateLives) {
    pid_t forked = -1;
    const auto object = NamedObject::Open(kKind, name_.c_str(), NamedObject::IfAbsent::Create,
                                          kObjectBytes, [&forked](int) {
                                              forked = ::fork();
                                              if (forked == 0) {
                                                  ::pause();
                                                  ::_exit(0);
                                              }
                                              return forked > 0;
                                          });
    ASSERT_TRUE(object);
    const auto other =
        std::async(std::launch::async, [] { return OpenOrCreate(UniqueName()) != nullptr; });
    EXPECT_EQ(other.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    ::kill(forked, SIGKILL);
    ::waitpid(forked, nullptr, 0);
}

TEST_F(NamedObjectFile, StaysHeldWhenAForkedProcessLeaves) {
    const auto object = OpenOrCreate(name_);
    const pid_t forked = ::fork();
    if (forked == 0) {
        object->Leave();
        ::_exit(0);
    }
    ASSERT_GT(forked, 0);
    ::waitpid(forked, nullptr, 0);
    const auto other = StartObjectUser();  // removes dead objects with its first one
    ASSERT_EQ(other->Ask("memory " + UniqueName()), "0");
    EXPECT_TRUE(std::filesystem::exists(PathOf(kKind, name_)));
    EXPECT_TRUE(object->Leave());
}

TEST_F(NamedObjectFile, IsNotInheritedByOtherPrograms) {
    const MutexHandle mutex(name_);
    MemoryHandle memory;
    ASSERT_TRUE(memory.Create(name_, kObjectBytes));
    ASSERT_NE(memory.Map(kObjectBytes), nullptr);
    const auto other = StartObjectUser();
    EXPECT_EQ(other->Ask("inherited /dev/shm"), "0");
}

TEST_F(NamedObjectFile, IsRefusedWhenNoDescriptorIsLeft) {
    const auto user = StartObjectUser();
    // The folder, the gate and the object's file need a descriptor each.
    for (const char* left : {"0", "1", "2"}) {
        ASSERT_EQ(user->Ask(std::string("descriptors ") + left), "0");
        EXPECT_EQ(user->Ask("memory " + name_), std::to_string(EMFILE)) << left;
        EXPECT_EQ(user->Ask("mutex " + name_), std::to_string(EMFILE)) << left;
        EXPECT_FALSE(std::filesystem::exists(PathOf("memory", name_))) << left;
        EXPECT_FALSE(std::filesystem::exists(PathOf("mutex", name_))) << left;
    }
    ASSERT_EQ(user->Ask("descriptors 3"), "0");
    EXPECT_EQ(user->Ask("memory " + name_), "0");
}

TEST_F(NamedObjectFile, ClosedWithoutADescriptorForTheGateStillVanishesWithItsLastHolder) {
    const auto user = StartObjectUser();
    ASSERT_EQ(user->Ask("memory " + name_), "0");
    user->Ask("write 9");
    ASSERT_EQ(user->Ask("descriptors 0"), "0");
    EXPECT_EQ(user->Ask("close"), "closed");
    MemoryHandle memory;
    EXPECT_FALSE(memory.Open(name_));
    ASSERT_TRUE(memory.Create(name_, kObjectBytes));
    EXPECT_EQ(memory.Map(kObjectBytes)[0], 0);
}

TEST_F(NamedObjectFile, ThatCannotGetItsBytesIsRefusedAndLeavesNothingBehind) {
    const auto user = StartObjectUser();
    ASSERT_EQ(user->Ask("bytes 1000"), "0");
    EXPECT_EQ(user->Ask("memory " + name_), std::to_string(EFBIG));
    EXPECT_FALSE(std::filesystem::exists(PathOf("memory", name_)));
}

// A release wakes one waiter. If another thread acquires the mutex first and the woken process is
// killed, the next release wakes no thread: the remaining waiters sleep although the mutex is free.
TEST_F(NamedMutexOnPosix, IsAcquiredByAWaiterWhoseWakeUpWasLost) {
    ChildProcess holder("MutexUser", {name_});
    ASSERT_EQ(holder.Ask("acquire 0"), "0");
    ChildProcess waiter("MutexUser", {name_});
    waiter.Send("acquire " + std::to_string(kForever));
    const auto object = NamedObject::Open("mutex", name_.c_str(), NamedObject::IfAbsent::Fail, 0);
    ASSERT_TRUE(object);
    // The C library keeps the state of a mutex in its first four bytes.
    std::uint32_t state = 0;
    while ((state & FUTEX_WAITERS) == 0) {
        ASSERT_EQ(::pread(object->Descriptor(), &state, sizeof state, 0), 4);
    }
    state = 0;
    ASSERT_EQ(::pwrite(object->Descriptor(), &state, sizeof state, 0), 4);
    std::future<std::string> result = std::async([&] { return waiter.Receive(); });
    EXPECT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    waiter.Kill();
    EXPECT_EQ(result.get(), "0");
    holder.Kill();
}

TEST_F(NamedMutexOnPosix, OfAWideNameIsTheMutexOfItsUtf8Name) {
    const std::string ascii = name_;
    const std::wstring wide = std::wstring(ascii.begin(), ascii.end()) +
                              L"\x7F\x80\u00E9\u07FF\u0800\uFFFD\U00010000\U0010FFFF";
    const std::string utf8 = ascii +
                             "\x7F\xC2\x80\xC3\xA9\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBD"
                             "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
    const MutexHandle byWideName(Platform::OpenNamedMutex(wide.c_str()));
    ASSERT_TRUE(byWideName.IsOpen());
    const auto other = StartObjectUser();
    ASSERT_EQ(other->Ask("mutex " + utf8), "0");
    ASSERT_EQ(other->Ask("acquire"), "0");
    EXPECT_EQ(byWideName.Acquire(0), kTimedOut);
}

TEST_F(NamedMutexOnPosix, ThatWasFoundAbandonedVanishesLikeAnyOther) {
    MutexHandle mutex(name_);
    const auto owner = StartObjectUser();
    const auto other = StartObjectUser();
    ASSERT_EQ(other->Ask("mutex " + name_), "0");
    ASSERT_EQ(owner->Ask("mutex " + name_), "0");
    ASSERT_EQ(owner->Ask("acquire"), "0");
    owner->Kill();
    ASSERT_EQ(mutex.Acquire(0), kAbandoned);
    mutex.Release();
    mutex.Close();
    other->Ask("close");
    EXPECT_FALSE(std::filesystem::exists(PathOf("mutex", name_)));
}

// The mutex's owner in this process has ended; then another process acquired and released it.
TEST_F(NamedMutexOnPosix, ThatWasOwnedHereOnceVanishesWithItsLastHolder) {
    MutexHandle mutex(name_);
    const auto other = StartObjectUser();
    ASSERT_EQ(other->Ask("mutex " + name_), "0");
    ASSERT_EQ(OnAnotherThread([&] { return mutex.Acquire(0); }), kAcquired);
    ASSERT_EQ(other->Ask("acquire"), "128");
    ASSERT_EQ(other->Ask("release"), "released");
    mutex.Close();
    other->Ask("close");
    EXPECT_FALSE(std::filesystem::exists(PathOf("mutex", name_)));
}

TEST_F(NamedMutexOnPosix, ThatWasReleasedTooOftenVanishesLikeAnyOther) {
    MutexHandle mutex(name_);
    const auto other = StartObjectUser();
    ASSERT_EQ(other->Ask("mutex " + name_), "0");
    ASSERT_EQ(mutex.Acquire(0), kAcquired);
    mutex.Release();
    mutex.Release();
    mutex.Close();
    EXPECT_FALSE(IsMapped(name_));
    other->Ask("close");
    EXPECT_FALSE(std::filesystem::exists(PathOf("mutex", name_)));
}

TEST_F(NamedMutexOnPosix, LeavesNoMemoryBehindOnceTheNameIsOpenedAgain) {
    MutexHandle mutex(name_);
    const auto other = StartObjectUser();
    ASSERT_EQ(other->Ask("mutex " + name_), "0");
    ASSERT_EQ(OnAnotherThread([&] { return mutex.Acquire(0); }), kAcquired);
    mutex.Close();
    EXPECT_TRUE(IsMapped(name_));  // another process still has it open
    other->Ask("close");
    MutexHandle(name_).Close();
    EXPECT_FALSE(IsMapped(name_));
}

TEST_F(NamedMutexOnPosix, LeavesNoMemoryBehindWhenItsOwnerClosesIt) {
    MutexHandle mutex(name_);
    ASSERT_TRUE(IsMapped(name_));
    ASSERT_EQ(mutex.Acquire(0), kAcquired);
    mutex.Close();
    EXPECT_FALSE(IsMapped(name_));
}

TEST_F(NamedMutexOnPosix, LeavesNoMemoryBehindWhenItsOwnerHasEnded) {
    MutexHandle mutex(name_);
    ASSERT_EQ(OnAnotherThread([&] { return mutex.Acquire(0); }), kAcquired);
    mutex.Close();
    EXPECT_FALSE(IsMapped(name_));
}

TEST_F(NamedMemoryOnPosix, OfNoBytesIsAnInvalidArgument) {
    MemoryHandle memory;
    EXPECT_FALSE(memory.Create(name_, 0));
    EXPECT_EQ(Platform::LastSystemError(), static_cast<std::uint32_t>(EINVAL));
}

TEST_F(NamedMemoryOnPosix, RefusesAccessPastItsLastPage) {
    MemoryHandle memory;
    ASSERT_TRUE(memory.Create(name_, kObjectBytes));
    EXPECT_EQ(memory.Map(kObjectBytes + 1), nullptr);
    EXPECT_EQ(Platform::LastSystemError(), static_cast<std::uint32_t>(EACCES));
}

}  // namespace Quorvel::Testing
