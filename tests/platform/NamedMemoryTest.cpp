#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "platform/Handles.h"
#include "platform/SystemError.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

constexpr std::uint64_t kBytes = 4096;

// "No such file" has the same number on all systems.
constexpr std::uint32_t kNotFound = 2;

// Uses a block by commands: "create", "open", "read OFFSET", "write OFFSET" (writes 77), "close".
// Argument: the block's name.
QUORVEL_AGENT(MemoryUser) {
    MemoryHandle memory;
    unsigned char* view = nullptr;
    for (std::string command = AgentReceive(); !command.empty(); command = AgentReceive()) {
        if (command == "create" || command == "open") {
            const bool open =
                command == "open" ? memory.Open(arguments[0]) : memory.Create(arguments[0], kBytes);
            view = open ? memory.Map(kBytes) : nullptr;
            AgentSend(view ? "open" : "refused");
        } else if (command.starts_with("read ")) {
            AgentSend(std::to_string(view[std::stoul(command.substr(5))]));
        } else if (command.starts_with("write ")) {
            view[std::stoul(command.substr(6))] = 77;
            AgentSend("written");
        } else if (command == "close") {
            memory.Close();
            AgentSend("closed");
        }
    }
    return 0;
}

bool IsAllZero(const unsigned char* bytes, std::size_t count) {
    return std::all_of(bytes, bytes + count, [](unsigned char byte) { return byte == 0; });
}

class NamedMemory : public ::testing::Test {
protected:
    void TearDown() override {
        memory_.Close();
        SweepUp(name_);
    }

    const std::string name_ = UniqueName();
    MemoryHandle memory_;
};

}  // namespace

TEST_F(NamedMemory, OfAnUnknownNameIsNotFound) {
    EXPECT_FALSE(memory_.Open(name_));
    EXPECT_EQ(Platform::LastSystemError(), kNotFound);
}

TEST_F(NamedMemory, IsZeroWhenCreated) {
    ASSERT_TRUE(memory_.Create(name_, kBytes));
    const unsigned char* const view = memory_.Map(kBytes);
    ASSERT_NE(view, nullptr);
    EXPECT_TRUE(IsAllZero(view, kBytes));
}

TEST_F(NamedMemory, IsSharedByAllProcessesThatOpenTheName) {
    ASSERT_TRUE(memory_.Create(name_, kBytes));
    unsigned char* const view = memory_.Map(kBytes);
    ASSERT_NE(view, nullptr);
    view[kBytes - 1] = 12;
    ChildProcess child("MemoryUser", {name_});
    ASSERT_EQ(child.Ask("open"), "open");
    EXPECT_EQ(child.Ask("read 4095"), "12");
    child.Ask("write 100");
    EXPECT_EQ(view[100], 77);
}

TEST_F(NamedMemory, IsSharedByAllHandlesOfOneProcess) {
    MemoryHandle second;
    ASSERT_TRUE(memory_.Create(name_, kBytes));
    ASSERT_TRUE(second.Open(name_));
    unsigned char* const view = memory_.Map(kBytes);
    const unsigned char* const secondView = second.Map(kBytes);
    ASSERT_NE(view, nullptr);
    ASSERT_NE(secondView, nullptr);
    view[7] = 7;
    EXPECT_EQ(secondView[7], 7);
}

TEST_F(NamedMemory, OfAnotherNameIsAnotherBlock) {
    MemoryHandle second;
    ASSERT_TRUE(memory_.Create(name_, kBytes));
    ASSERT_TRUE(second.Create(name_ + "x", kBytes));
    unsigned char* const view = memory_.Map(kBytes);
    const unsigned char* const secondView = second.Map(kBytes);
    ASSERT_NE(view, nullptr);
    ASSERT_NE(secondView, nullptr);
    std::memset(view, 9, kBytes);
    EXPECT_TRUE(IsAllZero(secondView, kBytes));
}

TEST_F(NamedMemory, ThatExistsIsOpenedUnchangedWhenCreatedAgain) {
    ChildProcess child("MemoryUser", {name_});
    ASSERT_EQ(child.Ask("create"), "open");
    child.Ask("write 5");
    ASSERT_TRUE(memory_.Create(name_, 4 * kBytes));
    EXPECT_EQ(memory_.Map(4 * kBytes), nullptr);
    const unsigned char* const view = memory_.Map(kBytes);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view[5], 77);
}

TEST_F(NamedMemory, VanishesWithItsLastHandle) {
    ASSERT_TRUE(memory_.Create(name_, kBytes));
    memory_.Map(kBytes)[0] = 1;
    memory_.Close();
    EXPECT_FALSE(memory_.Open(name_));
    ASSERT_TRUE(memory_.Create(name_, kBytes));
    EXPECT_EQ(memory_.Map(kBytes)[0], 0);
}

TEST_F(NamedMemory, OutlivesItsCreatorWhileAnotherProcessHasItOpen) {
    ASSERT_TRUE(memory_.Create(name_, kBytes));
    memory_.Map(kBytes)[0] = 23;
    ChildProcess child("MemoryUser", {name_});
    ASSERT_EQ(child.Ask("open"), "open");
    memory_.Close();
    EXPECT_EQ(child.Ask("read 0"), "23");
    ASSERT_TRUE(memory_.Open(name_));
    EXPECT_EQ(memory_.Map(kBytes)[0], 23);
    memory_.Close();
    child.Ask("close");
    EXPECT_FALSE(memory_.Open(name_));
}

TEST_F(NamedMemory, OutlivesAKilledHolder) {
    ASSERT_TRUE(memory_.Create(name_, kBytes));
    memory_.Map(kBytes)[0] = 23;
    ChildProcess child("MemoryUser", {name_});
    ASSERT_EQ(child.Ask("open"), "open");
    child.Kill();
    MemoryHandle second;
    ASSERT_TRUE(second.Open(name_));
    EXPECT_EQ(second.Map(kBytes)[0], 23);
}

TEST_F(NamedMemory, VanishesWhenItsLastHolderIsKilled) {
    ChildProcess child("MemoryUser", {name_});
    ASSERT_EQ(child.Ask("create"), "open");
    child.Ask("write 0");
    child.Kill();
    EXPECT_FALSE(memory_.Open(name_));
    EXPECT_EQ(Platform::LastSystemError(), kNotFound);
}

TEST_F(NamedMemory, IsZeroAgainAfterItsLastHolderWasKilled) {
    ChildProcess child("MemoryUser", {name_});
    ASSERT_EQ(child.Ask("create"), "open");
    child.Ask("write 0");
    child.Ask("write 4095");
    child.Kill();
    ASSERT_TRUE(memory_.Create(name_, kBytes));
    const unsigned char* const view = memory_.Map(kBytes);
    ASSERT_NE(view, nullptr);
    EXPECT_TRUE(IsAllZero(view, kBytes));
}

TEST_F(NamedMemory, OfNoBytesIsRefused) {
    EXPECT_FALSE(memory_.Create(name_, 0));
    EXPECT_NE(Platform::LastSystemError(), 0U);
    EXPECT_FALSE(memory_.Open(name_));
}

TEST_F(NamedMemory, IsCreatedWithTheLow32BitsOfItsSize) {
    constexpr std::uint64_t kHighPart = std::uint64_t{3} << 32;
    EXPECT_FALSE(memory_.Create(name_, kHighPart));
    ASSERT_TRUE(memory_.Create(name_, kHighPart + kBytes));
    EXPECT_EQ(memory_.Map(kHighPart + kBytes), nullptr);
    EXPECT_EQ(memory_.Map(2 * kBytes), nullptr);
    EXPECT_NE(memory_.Map(kBytes), nullptr);
}

TEST_F(NamedMemory, IsNotMappedPastItsLastPage) {
    ASSERT_TRUE(memory_.Create(name_, kBytes + 1));
    EXPECT_EQ(memory_.Map(2 * kBytes + 1), nullptr);
    EXPECT_NE(Platform::LastSystemError(), 0U);
    const unsigned char* const view = memory_.Map(2 * kBytes);
    ASSERT_NE(view, nullptr);
    EXPECT_TRUE(IsAllZero(view, 2 * kBytes));
}

TEST_F(NamedMemory, CanBeMappedInPart) {
    ASSERT_TRUE(memory_.Create(name_, 16 * kBytes));
    unsigned char* const view = memory_.Map(24);
    ASSERT_NE(view, nullptr);
    view[23] = 4;
    MemoryHandle second;
    ASSERT_TRUE(second.Open(name_));
    EXPECT_EQ(second.Map(16 * kBytes)[23], 4);
}

TEST_F(NamedMemory, IsMappedWholeForASizeOfZero) {
    ASSERT_TRUE(memory_.Create(name_, 3 * kBytes));
    unsigned char* const view = memory_.Map(0);
    ASSERT_NE(view, nullptr);
    view[3 * kBytes - 1] = 4;
    MemoryHandle second;
    ASSERT_TRUE(second.Open(name_));
    EXPECT_EQ(second.Map(3 * kBytes)[3 * kBytes - 1], 4);
}

}  // namespace Quorvel::Testing
