#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "effectcache/CacheClient.h"
#include "effectcache/StoredCache.h"
#include "platform/Path.h"
#include "quorvel/Exceptions.h"
#include "quorvel/MutexObject.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "support/StdioFaults.h"

// Processes that share the cache of one directory.
namespace Quorvel::Testing {

namespace {

std::string ToHex(const Bytes& bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

// The name of an effect that is one of many, and its bytes.
std::string NumberedName(std::uint64_t number) {
    return "effect-" + std::to_string(number);
}
Bytes NumberedBytes(std::uint64_t number) {
    return EffectBytes(std::to_string(number), 8);
}

// Executes commands on the cache of a directory: "add NAME LABEL SIZE", "add-many FIRST COUNT",
// "find NAME", "save", "counts". Names and labels have no spaces.
QUORVEL_AGENT(CacheUser) {
    CacheClient cache(arguments[0]);
    AgentSend(cache->IsEnabled() ? "enabled" : "inert");
    for (std::string line = AgentReceive(); !line.empty(); line = AgentReceive()) {
        std::istringstream words(line);
        std::string command;
        std::string name;
        words >> command >> name;
        if (command == "add") {
            std::string label;
            std::size_t size = 0;
            words >> label >> size;
            cache.Add(name, EffectBytes(label, size));
            AgentSend("added");
        } else if (command == "add-many") {
            const std::uint64_t first = std::stoull(name);
            std::uint64_t count = 0;
            words >> count;
            for (std::uint64_t number = first; number < first + count; ++number) {
                cache.Add(NumberedName(number), NumberedBytes(number));
            }
            AgentSend("added");
        } else if (command == "find") {
            const auto bytes = cache.Find(name);
            AgentSend(bytes ? ToHex(*bytes) : "absent");
        } else if (command == "save") {
            cache->ForceSaveToFile();
            AgentSend(cache->IsEnabled() ? "saved" : "inert");
        } else if (command == "counts") {
            AgentSend(std::to_string(cache.InFile()) + ' ' + std::to_string(cache.InMemory()));
        }
    }
    return 0;
}

// Holds a mutex until it is told to end.
QUORVEL_AGENT(MutexHolder) {
    MutexObject mutex(arguments[0].c_str());
    AgentSend(std::to_string(mutex.Acquire(kWaitForever)));
    AgentReceive();
    mutex.Release();
    return 0;
}

// A process that runs CacheUser.
class Host {
public:
    explicit Host(const std::string& directory) : process_("CacheUser", {directory}) {}
    explicit Host(const TemporaryDirectory& directory) : Host(directory.Path().string()) {}

    // Waits until the cache is open. True if it is enabled.
    bool IsOpen() { return process_.Receive() == "enabled"; }

    void Add(const std::string& name, const std::string& label, std::size_t size) {
        EXPECT_EQ(process_.Ask("add " + name + ' ' + label + ' ' + std::to_string(size)), "added");
    }
    void AddMany(std::uint64_t first, std::uint64_t count) {
        EXPECT_EQ(process_.Ask("add-many " + std::to_string(first) + ' ' + std::to_string(count)),
                  "added");
    }
    bool Save() { return process_.Ask("save") == "saved"; }
    void BeginSave() { process_.Send("save"); }
    bool EndSave() { return process_.Receive() == "saved"; }
    std::string Find(const std::string& name) { return process_.Ask("find " + name); }
    std::string Counts() { return process_.Ask("counts"); }

    void Kill() { process_.Kill(); }
    int End() { return process_.Wait(); }

private:
    ChildProcess process_;
};

class EffectCacheProcesses : public ::testing::Test {
public:
    std::unique_ptr<Host> Start() {
        auto host = std::make_unique<Host>(directory);
        EXPECT_TRUE(host->IsOpen());
        return host;
    }

    std::string Expected(const std::string& label, std::size_t size) {
        return ToHex(EffectBytes(label, size));
    }

    TemporaryDirectory directory;
    std::string path = CacheFilePath(directory);
};

TEST_F(EffectCacheProcesses, FindEffectsThatOthersSaved) {
    const auto a = Start();
    const auto b = Start();
    a->Add("x", "bytes-of-x", 5000);
    EXPECT_EQ(b->Find("x"), "absent");
    EXPECT_TRUE(a->Save());
    EXPECT_EQ(b->Find("x"), Expected("bytes-of-x", 5000));
    EXPECT_EQ(b->Counts(), "1 0");
    b->Add("y", "bytes-of-y", 300);
    EXPECT_TRUE(b->Save());
    EXPECT_EQ(a->Find("y"), Expected("bytes-of-y", 300));
    EXPECT_EQ(a->Find("x"), Expected("bytes-of-x", 5000));
}

TEST_F(EffectCacheProcesses, SpellingsOfOneDirectoryShareACache) {
    const auto a = Start();
    Host b(directory.Path().string() + Platform::kPathSeparator);
    ASSERT_TRUE(b.IsOpen());
    a->Add("x", "bytes-of-x", 100);
    EXPECT_TRUE(a->Save());
    EXPECT_EQ(b.Find("x"), Expected("bytes-of-x", 100));
}

TEST_F(EffectCacheProcesses, LaterSaveOfANameReplacesTheEarlierOne) {
    const auto a = Start();
    const auto b = Start();
    b->Add("x", "by-b", 100);
    a->Add("x", "by-a", 100);
    EXPECT_TRUE(a->Save());
    EXPECT_EQ(b->Find("x"), Expected("by-b", 100));
    EXPECT_TRUE(b->Save());
    EXPECT_EQ(a->Find("x"), Expected("by-b", 100));
    EXPECT_EQ(Start()->Find("x"), Expected("by-b", 100));
    EXPECT_EQ(a->Counts(), "1 0");
}

TEST_F(EffectCacheProcesses, PendingEffectsSurviveTheReload) {
    const auto a = Start();
    const auto b = Start();
    b->Add("mine", "by-b", 200);
    a->Add("x", "by-a", 200);
    EXPECT_TRUE(a->Save());
    EXPECT_EQ(b->Find("x"), Expected("by-a", 200));
    EXPECT_EQ(b->Counts(), "1 1");
    EXPECT_EQ(b->Find("mine"), Expected("by-b", 200));
    EXPECT_TRUE(b->Save());
    EXPECT_EQ(a->Find("mine"), Expected("by-b", 200));
}

TEST_F(EffectCacheProcesses, EndingProcessSavesItsPendingEffects) {
    const auto a = Start();
    a->Add("x", "by-a", 70000);
    const auto b = Start();
    EXPECT_EQ(a->End(), 0);
    EXPECT_EQ(b->Find("x"), Expected("by-a", 70000));
}

TEST_F(EffectCacheProcesses, EachSaveIsNoticedOnce) {
    const auto a = Start();
    CacheClient b(directory);
    for (int round = 0; round < 3; ++round) {
        const std::string label = "round-" + std::to_string(round);
        a->Add("x", label, 100);
        EXPECT_TRUE(a->Save());
        const std::uint64_t opens = CountStdioCalls().opens;
        EXPECT_EQ(b.Find("x"), EffectBytes(label, 100));
        EXPECT_EQ(CountStdioCalls().opens, opens + 1);
        EXPECT_EQ(b.Find("x"), EffectBytes(label, 100));
        EXPECT_EQ(b.Find("absent"), std::nullopt);
        EXPECT_EQ(CountStdioCalls().opens, opens + 1);
    }
}

TEST_F(EffectCacheProcesses, ThatOpenAtOnceShareOneCache) {
    std::vector<std::unique_ptr<Host>> hosts;
    for (int index = 0; index < 4; ++index) {
        hosts.push_back(std::make_unique<Host>(directory));
    }
    for (const auto& host : hosts) {
        EXPECT_TRUE(host->IsOpen());
    }
    hosts[0]->Add("x", "by-0", 100);
    EXPECT_TRUE(hosts[0]->Save());
    for (const auto& host : hosts) {
        EXPECT_EQ(host->Find("x"), Expected("by-0", 100));
    }
}

TEST_F(EffectCacheProcesses, ThatSaveAtOnceLoseNothing) {
    constexpr int kHosts = 4;
    constexpr int kRounds = 3;
    constexpr int kEffects = 6;
    const auto nameOf = [](int host, int round, int effect) {
        return "effect-" + std::to_string(host) + '-' + std::to_string(round) + '-' +
               std::to_string(effect);
    };
    std::vector<std::unique_ptr<Host>> hosts;
    for (int index = 0; index < kHosts; ++index) {
        hosts.push_back(std::make_unique<Host>(directory));
    }
    for (const auto& host : hosts) {
        ASSERT_TRUE(host->IsOpen());
    }
    for (int round = 0; round < kRounds; ++round) {
        for (int host = 0; host < kHosts; ++host) {
            for (int effect = 0; effect < kEffects; ++effect) {
                const std::string name = nameOf(host, round, effect);
                hosts[static_cast<std::size_t>(host)]->Add(name, name, 3000);
            }
        }
        for (const auto& host : hosts) {
            host->BeginSave();
        }
        for (const auto& host : hosts) {
            EXPECT_TRUE(host->EndSave());
        }
    }
    const auto fifth = Start();
    EXPECT_EQ(fifth->Counts(), std::to_string(kHosts * kRounds * kEffects) + " 0");
    for (int host = 0; host < kHosts; ++host) {
        for (int round = 0; round < kRounds; ++round) {
            for (int effect = 0; effect < kEffects; ++effect) {
                const std::string name = nameOf(host, round, effect);
                EXPECT_EQ(fifth->Find(name), Expected(name, 3000)) << name;
            }
        }
    }
}

TEST_F(EffectCacheProcesses, ThatReplaceTheSameNamesAtOnceLeaveWholeEffects) {
    constexpr int kHosts = 4;
    constexpr int kEffects = 5;
    std::vector<std::unique_ptr<Host>> hosts;
    for (int index = 0; index < kHosts; ++index) {
        hosts.push_back(Start());
    }
    for (int round = 0; round < 4; ++round) {
        for (int host = 0; host < kHosts; ++host) {
            for (int effect = 0; effect < kEffects; ++effect) {
                const std::string name = "effect-" + std::to_string(effect);
                hosts[static_cast<std::size_t>(host)]->Add(
                    name, name + "-by-" + std::to_string(host), 9000);
            }
        }
        for (const auto& host : hosts) {
            host->BeginSave();
        }
        for (const auto& host : hosts) {
            EXPECT_TRUE(host->EndSave());
        }
        const auto fresh = Start();
        EXPECT_EQ(fresh->Counts(), std::to_string(kEffects) + " 0");
        for (int effect = 0; effect < kEffects; ++effect) {
            const std::string name = "effect-" + std::to_string(effect);
            const std::string found = fresh->Find(name);
            int matches = 0;
            for (int host = 0; host < kHosts; ++host) {
                matches += found == Expected(name + "-by-" + std::to_string(host), 9000) ? 1 : 0;
                EXPECT_EQ(hosts[static_cast<std::size_t>(host)]->Find(name), found);
            }
            EXPECT_EQ(matches, 1) << name;
        }
    }
}

TEST_F(EffectCacheProcesses, KeepTheNewestOfMoreEffectsThanThereAreStreams) {
    constexpr std::uint64_t kEffects = 70000;
    constexpr std::uint64_t kNewest = 65000;
    constexpr std::uint64_t kBatch = 1250;
    std::vector<std::unique_ptr<Host>> hosts;
    for (int index = 0; index < 8; ++index) {
        hosts.push_back(Start());
    }
    for (std::uint64_t first = 0; first < kEffects; first += kBatch) {
        Host& host = *hosts[first / kBatch % hosts.size()];
        host.AddMany(first, kBatch);
        ASSERT_TRUE(host.Save()) << first;
    }
    CacheClient cache(directory);
    EXPECT_GE(cache.InFile(), kNewest);
    for (std::uint64_t number = 0; number < kEffects; ++number) {
        const auto bytes = cache.Find(NumberedName(number));
        EXPECT_TRUE(bytes ? *bytes == NumberedBytes(number) : number < kEffects - kNewest)
            << number;
    }
}

// ---- Cached pages older than the file -----------------------------------------------------------

TEST_F(EffectCacheProcesses, ProcessThatClosesLateLeavesTheNewerFileAlone) {
    WriteCache(path, {{"x", EffectBytes("old-x", 9000)}, {"y", EffectBytes("old-y", 9000)}});
    const auto a = Start();
    EXPECT_EQ(a->Find("x"), Expected("old-x", 9000));
    EXPECT_EQ(a->Find("y"), Expected("old-y", 9000));
    const auto b = Start();
    b->Add("x", "new-x", 9000);
    b->Add("z", "new-z", 9000);
    EXPECT_TRUE(b->Save());
    const Bytes saved = ReadWholeFile(path);
    EXPECT_EQ(a->End(), 0);
    EXPECT_EQ(ReadWholeFile(path), saved);
    EXPECT_EQ(b->End(), 0);
    EXPECT_EQ(ReadWholeFile(path), saved);
    const auto fresh = Start();
    EXPECT_EQ(fresh->Find("x"), Expected("new-x", 9000));
    EXPECT_EQ(fresh->Find("y"), Expected("old-y", 9000));
    EXPECT_EQ(fresh->Find("z"), Expected("new-z", 9000));
}

TEST_F(EffectCacheProcesses, ProcessThatSearchesLateLeavesTheNewerFileAlone) {
    // More than the page cache holds, so that searching evicts old pages.
    std::vector<StoredEffect> effects;
    for (int index = 0; index < 100; ++index) {
        const std::string name = "effect-" + std::to_string(index);
        effects.push_back({name, EffectBytes(name, 9000)});
    }
    WriteCache(path, effects);
    const auto a = Start();
    for (int index = 0; index < 100; ++index) {
        const std::string name = "effect-" + std::to_string(index);
        EXPECT_EQ(a->Find(name), Expected(name, 9000));
    }
    const auto b = Start();
    for (int index = 0; index < 100; index += 3) {
        b->Add("effect-" + std::to_string(index), "new-" + std::to_string(index) + '.', 9000);
    }
    EXPECT_TRUE(b->Save());
    const Bytes saved = ReadWholeFile(path);
    for (int index = 99; index >= 0; --index) {
        const std::string name = "effect-" + std::to_string(index);
        const std::string label = index % 3 == 0 ? "new-" + std::to_string(index) + '.' : name;
        EXPECT_EQ(a->Find(name), Expected(label, 9000)) << name;
    }
    EXPECT_EQ(a->End(), 0);
    EXPECT_EQ(ReadWholeFile(path), saved);
}

// ---- Processes that are killed ------------------------------------------------------------------

TEST_F(EffectCacheProcesses, KilledProcessLeavesTheOthersWorking) {
    const auto a = Start();
    const auto b = Start();
    a->Add("saved", "by-a", 9000);
    EXPECT_TRUE(a->Save());
    a->Add("lost", "by-a", 9000);
    EXPECT_EQ(a->Find("saved"), Expected("by-a", 9000));
    a->Kill();
    EXPECT_EQ(b->Find("saved"), Expected("by-a", 9000));
    EXPECT_EQ(b->Find("lost"), "absent");
    b->Add("more", "by-b", 9000);
    EXPECT_TRUE(b->Save());
    const auto c = Start();
    EXPECT_EQ(c->Find("saved"), Expected("by-a", 9000));
    EXPECT_EQ(c->Find("more"), Expected("by-b", 9000));
    EXPECT_EQ(c->Find("lost"), "absent");
    EXPECT_TRUE(IsFileMutexFree(directory));
}

TEST_F(EffectCacheProcesses, KilledHolderOfTheFileMutexLeavesTheNextOneWorking) {
    const std::string mutexName = SharedObjectName(directory) + "_mutex";
    WriteCache(path, {{"x", EffectBytes("old-x", 9000)}});
    const auto b = Start();
    const auto c = Start();
    ChildProcess holder("MutexHolder", {mutexName});
    EXPECT_EQ(holder.Receive(), "0");
    holder.Kill();

    EXPECT_EQ(b->Find("x"), Expected("old-x", 9000));
    b->Add("y", "by-b", 9000);
    EXPECT_TRUE(b->Save());
    EXPECT_EQ(b->Find("y"), Expected("by-b", 9000));

    // A process that gets an abandoned mutex never releases it. When it ends, the next process that
    // waits gets the mutex, abandoned again.
    MutexObject mutex(mutexName.c_str());
    EXPECT_EQ(mutex.Acquire(0), kWaitTimedOut);
    EXPECT_EQ(b->End(), 0);
    EXPECT_EQ(c->Find("y"), Expected("by-b", 9000));
    EXPECT_EQ(c->Find("x"), Expected("old-x", 9000));
    EXPECT_EQ(mutex.Acquire(0), kWaitTimedOut);
    EXPECT_EQ(c->End(), 0);
    EXPECT_EQ(mutex.Acquire(kWaitForever), kWaitAbandoned);
    mutex.Release();
}

// A process that is killed while it saves updates no stamp. The abandoned mutex is the only sign.
TEST_F(EffectCacheProcesses, KilledHolderOfTheFileMutexMakesTheNextOneReadTheFileAgain) {
    const std::string mutexName = SharedObjectName(directory) + "_mutex";
    WriteCache(path, {{"x", EffectBytes("old-x", 9000)}});
    const auto b = Start();
    ChildProcess holder("MutexHolder", {mutexName});
    EXPECT_EQ(holder.Receive(), "0");
    WriteCache(path, {{"x", EffectBytes("new-x", 9000)}, {"y", EffectBytes("new-y", 9000)}});
    holder.Kill();
    EXPECT_EQ(b->Find("x"), Expected("new-x", 9000));
    EXPECT_EQ(b->Find("y"), Expected("new-y", 9000));
}

TEST_F(EffectCacheProcesses, FileThatAKilledProcessLeftUnfinishedIsRestored) {
    WriteCache(path, {{"x", EffectBytes("old-x", 9000)}});
    LeaveUnfinishedSave(path);
    const auto a = Start();
    EXPECT_EQ(a->Find("x"), Expected("old-x", 9000));
    EXPECT_FALSE(std::filesystem::exists(path + "-journal"));
    a->Add("y", "by-a", 9000);
    EXPECT_TRUE(a->Save());
    const auto b = Start();
    EXPECT_EQ(b->Find("x"), Expected("old-x", 9000));
    EXPECT_EQ(b->Find("y"), Expected("by-a", 9000));
}

// The same for a process that has the cache open and inherits the file mutex of the killed one.
TEST_F(EffectCacheProcesses, HeirOfTheFileMutexRestoresTheFileAndGoesOn) {
    WriteCache(path, {{"x", EffectBytes("old-x", 9000)}});
    const auto a = Start();
    EXPECT_EQ(a->Find("x"), Expected("old-x", 9000));
    ChildProcess holder("MutexHolder", {SharedObjectName(directory) + "_mutex"});
    ASSERT_EQ(holder.Receive(), "0");
    LeaveUnfinishedSave(path);
    holder.Kill();
    EXPECT_EQ(a->Find("x"), Expected("old-x", 9000));
    EXPECT_FALSE(std::filesystem::exists(path + "-journal"));
    a->Add("y", "by-a", 9000);
    EXPECT_TRUE(a->Save());
}

TEST_F(EffectCacheProcesses, FileThatAKilledProcessLeftUnfinishedIsReplacedWithoutItsJournal) {
    WriteCache(path, {{"x", EffectBytes("old-x", 9000)}});
    LeaveUnfinishedSave(path);
    std::filesystem::remove(path + "-journal");
    const auto a = Start();
    EXPECT_EQ(a->Find("x"), "absent");
    a->Add("y", "by-a", 9000);
    EXPECT_TRUE(a->Save());
    EXPECT_EQ(Start()->Find("y"), Expected("by-a", 9000));
}

TEST_F(EffectCacheProcesses, JournalOfAnotherSaveIsRemoved) {
    WriteCache(path, {{"x", EffectBytes("old-x", 9000)}});
    LeaveUnfinishedSave(path);
    WriteCache(path, {{"x", EffectBytes("new-x", 9000)}});
    EXPECT_EQ(Start()->Find("x"), Expected("new-x", 9000));
    EXPECT_FALSE(std::filesystem::exists(path + "-journal"));
}

// The save and the death after it cause a single reload.
TEST_F(EffectCacheProcesses, SaveAndKilledHolderOfTheFileMutexCauseOneReload) {
    WriteCache(path, {{"x", EffectBytes("old-x", 9000)}});
    CacheClient b(directory);
    const auto a = Start();
    a->Add("y", "by-a", 100);
    ASSERT_TRUE(a->Save());
    ChildProcess holder("MutexHolder", {SharedObjectName(directory) + "_mutex"});
    ASSERT_EQ(holder.Receive(), "0");
    holder.Kill();
    const std::uint64_t before = CountStdioCalls().opens;
    EXPECT_EQ(b.Find("y"), EffectBytes("by-a", 100));
    EXPECT_EQ(CountStdioCalls().opens, before + 1);
    EXPECT_EQ(b.Find("y"), EffectBytes("by-a", 100));
    EXPECT_EQ(CountStdioCalls().opens, before + 1);
}

TEST_F(EffectCacheProcesses, KilledHolderOfTheFileMutexDoesNotStopOthersFromOpening) {
    const std::string mutexName = SharedObjectName(directory) + "_mutex";
    WriteCache(path, {{"x", EffectBytes("old-x", 9000)}});
    const MutexObject keepsItAlive(mutexName.c_str());
    ChildProcess holder("MutexHolder", {mutexName});
    EXPECT_EQ(holder.Receive(), "0");
    holder.Kill();
    EXPECT_EQ(Start()->Find("x"), Expected("old-x", 9000));
}

TEST_F(EffectCacheProcesses, KilledHolderOfTheStampsMutexLeavesOpenCachesWorking) {
    const std::string mutexName = SharedObjectName(directory) + "_timestamp_mutex";
    const auto a = Start();
    const auto b = Start();
    ChildProcess holder("MutexHolder", {mutexName});
    EXPECT_EQ(holder.Receive(), "0");
    holder.Kill();
    a->Add("x", "by-a", 9000);
    EXPECT_TRUE(a->Save());
    EXPECT_EQ(b->Find("x"), Expected("by-a", 9000));
    EXPECT_EQ(Start()->Find("x"), Expected("by-a", 9000));
}

TEST_F(EffectCacheProcesses, KilledHolderOfTheStampsMutexMakesTheNextConstructorThrow) {
    const std::string mutexName = SharedObjectName(directory) + "_timestamp_mutex";
    MutexObject mutex(mutexName.c_str());
    ChildProcess holder("MutexHolder", {mutexName});
    EXPECT_EQ(holder.Receive(), "0");
    holder.Kill();
    EXPECT_THROW(CacheClient{directory}, Win32APICallFailedException);
    mutex.Release();
    CacheClient cache(directory);
    EXPECT_TRUE(cache->IsEnabled());
}

TEST_F(EffectCacheProcesses, WaitForTheHolderOfTheFileMutex) {
    const auto a = Start();
    a->Add("x", "by-a", 100);
    ChildProcess holder("MutexHolder", {SharedObjectName(directory) + "_mutex"});
    EXPECT_EQ(holder.Receive(), "0");
    a->BeginSave();
    EXPECT_EQ(StoredCache(directory).RecordCount(), 0u);
    EXPECT_EQ(holder.Wait(), 0);
    EXPECT_TRUE(a->EndSave());
    EXPECT_EQ(StoredCache(directory).RecordCount(), 1u);
}

}  // namespace

}  // namespace Quorvel::Testing
