#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/Handles.h"
#include "platform/posix/NamedObject.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

using Platform::NamedObject;

namespace {

constexpr int kProcesses = 3;
constexpr int kKills = 60;

// What the processes of a test share, in a file that exists from beginning to end.
struct Referee {
    std::atomic<std::uint64_t> generation;  // what the last creator wrote into the object
    std::atomic<std::uint64_t> owner;       // the process that claims to own the mutex
    std::atomic<std::uint64_t> openings;
    std::atomic<std::uint64_t> creations;
    std::atomic<std::uint64_t> abandonments;
    std::atomic<std::uint64_t> violations;
};

template <typename Record>
class MappedRecord {
public:
    explicit MappedRecord(int descriptor)
        : record_(static_cast<Record*>(::mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE,
                                              MAP_SHARED, descriptor, 0))) {}
    MappedRecord(const MappedRecord&) = delete;
    MappedRecord& operator=(const MappedRecord&) = delete;
    ~MappedRecord() { ::munmap(record_, sizeof(Record)); }

    Record* operator->() const { return record_; }

private:
    Record* record_;
};

class RefereeFile {
public:
    explicit RefereeFile(const std::string& path)
        : descriptor_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        EXPECT_EQ(::ftruncate(descriptor_, sizeof(Referee)), 0);
    }
    RefereeFile(const RefereeFile&) = delete;
    RefereeFile& operator=(const RefereeFile&) = delete;
    ~RefereeFile() { ::close(descriptor_); }

    int Descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

// Yields the processor a number of times.
void Pause(std::mt19937::result_type times) {
    for (; times > 0; --times) {
        std::this_thread::yield();
    }
}

struct Block {
    std::atomic<std::uint64_t> generation;
};

// Opens and closes an object: NAME REFEREE ROUNDS SEED. No process may create it while another
// holds it, so it must keep what the last creator wrote into it.
QUORVEL_AGENT(Holder) {
    const RefereeFile file(arguments[1]);
    const MappedRecord<Referee> referee(file.Descriptor());
    std::mt19937 random(static_cast<std::uint32_t>(std::stoul(arguments[3])));
    const auto check = [&](bool holds) { referee->violations += holds ? 0 : 1; };
    const auto create = [&](int descriptor) {
        const MappedRecord<Block> block(descriptor);
        check(block->generation == 0);
        std::this_thread::yield();
        const std::uint64_t generation = (static_cast<std::uint64_t>(random()) << 32) | random();
        block->generation = generation;
        referee->generation = generation;
        ++referee->creations;
        return true;
    };
    AgentSend("ready");
    for (int rounds = std::stoi(arguments[2]); rounds > 0; --rounds) {
        Pause(random() % 8);
        const auto object = NamedObject::Open("stress", arguments[0].c_str(),
                                              NamedObject::IfAbsent::Create, sizeof(Block), create);
        if (!object) {
            check(false);
            continue;
        }
        ++referee->openings;
        const MappedRecord<Block> block(object->Descriptor());
        for (auto looks = random() % 3; looks > 0; --looks) {
            check(block->generation == referee->generation);
            std::this_thread::yield();
        }
    }
    return 0;
}

// Opens, acquires, releases and closes a mutex: NAME REFEREE ROUNDS SEED. Unless it was abandoned,
// no other process may claim to own it.
QUORVEL_AGENT(Owner) {
    const RefereeFile file(arguments[1]);
    const MappedRecord<Referee> referee(file.Descriptor());
    std::mt19937 random(static_cast<std::uint32_t>(std::stoul(arguments[3])));
    const auto check = [&](bool holds) { referee->violations += holds ? 0 : 1; };
    const std::uint64_t self = (static_cast<std::uint64_t>(random()) << 32) | random();
    AgentSend("ready");
    for (int rounds = std::stoi(arguments[2]); rounds > 0; --rounds) {
        const MutexHandle mutex(arguments[0]);
        if (!mutex.IsOpen()) {
            check(false);
            continue;
        }
        ++referee->openings;
        for (auto times = random() % 4; times > 0; --times) {
            const std::uint32_t result = mutex.Acquire(kForever);
            check(result == kAcquired || result == kAbandoned);
            check(result == kAbandoned || referee->owner == 0);
            referee->abandonments += result == kAbandoned ? 1 : 0;
            referee->owner = self;
            std::this_thread::yield();
            check(referee->owner == self);
            referee->owner = 0;
            mutex.Release();
        }
    }
    return 0;
}

// Keeps some processes running, kills one now and then, and lets the last ones finish.
void RunPlayers(const std::string& agent, const std::string& name, const std::string& refereePath) {
    std::mt19937 random(4711);
    const auto start = [&](const char* rounds) {
        auto player = std::make_unique<ChildProcess>(
            agent, std::vector<std::string>{name, refereePath, rounds, std::to_string(random())});
        EXPECT_EQ(player->Receive(), "ready");
        return player;
    };
    std::vector<std::unique_ptr<ChildProcess>> players;
    for (int index = 0; index < kProcesses; ++index) {
        players.push_back(start("1000000000"));
    }
    for (int kills = 0; kills < kKills; ++kills) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20'000));
        players[random() % kProcesses] = start("1000000000");
    }
    for (auto& player : players) {
        player = start("500");
    }
    for (auto& player : players) {
        EXPECT_EQ(player->Wait(), 0);
    }
}

}  // namespace

TEST(NamedObjectStress, AnObjectIsNotCreatedWhileAProcessHoldsIt) {
    const TemporaryDirectory directory;
    const std::string name = UniqueName();
    const RefereeFile file(directory.File("referee"));
    const MappedRecord<Referee> referee(file.Descriptor());
    RunPlayers("Holder", name, directory.File("referee"));
    EXPECT_EQ(referee->violations, 0U);
    EXPECT_GT(referee->creations, 1U);
    EXPECT_GT(referee->openings, referee->creations);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(NamedObject::Folder()) /
                                         NamedObject::FileName("stress", name.c_str())));
}

TEST(NamedObjectStress, AMutexHasOneOwnerAtATimeEvenIfProcessesAreKilled) {
    const TemporaryDirectory directory;
    const std::string name = UniqueName();
    const RefereeFile file(directory.File("referee"));
    const MappedRecord<Referee> referee(file.Descriptor());
    {
        const MutexHandle mutex(name);
        RunPlayers("Owner", name, directory.File("referee"));
        EXPECT_NE(mutex.Acquire(0), kTimedOut);
        mutex.Release();
    }
    EXPECT_EQ(referee->violations, 0U);
    EXPECT_GT(referee->openings, 0U);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(NamedObject::Folder()) /
                                         NamedObject::FileName("mutex", name.c_str())));
}

}  // namespace Quorvel::Testing
