#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "effectcache/SharedCache.h"
#include "quorvel/EffectCacheSystem.h"
#include "share/ShareTest.h"
#include "vornutil/RefPtr.h"
#include "vornutil/Tab.h"

namespace Quorvel::Tool {
namespace {

using testing::HasSubstr;

class AgentTest : public ShareTest {
protected:
    static std::unique_ptr<Testing::ChildProcess> StartAgent(const std::string& cache,
                                                             const std::string& url,
                                                             const std::string& every = "0.1",
                                                             const std::string& rescan = "600") {
        return Start(
            {"agent", cache, url, "--server-timeout", "1", "--every", every, "--rescan", rescan});
    }

    // What a host does: caches an effect whose byte is known by its name, and saves.
    static void Save(const std::string& cache, const std::string& name) {
        const Util::RefPtr<EffectCacheSystem> host(new EffectCacheSystem(cache.c_str()));
        ASSERT_TRUE(host->IsEnabled());
        const std::vector<unsigned char> code(100, static_cast<unsigned char>(name.back()));
        host->CacheCompiledEffect(name.c_str(), code.data(), code.size(), false);
    }

    // True if a host finds the effect.
    static bool Has(const std::string& cache, const std::string& name) {
        if (!std::filesystem::exists(cache + "/vornFxoCache.dat")) { return false; }
        const Util::RefPtr<EffectCacheSystem> host(new EffectCacheSystem(cache.c_str()));
        Tab<unsigned char> code;
        if (!host->SearchCachedEffects(name.c_str(), code)) { return false; }
        EXPECT_EQ(code.Count(), 100);
        EXPECT_EQ(code[0], static_cast<unsigned char>(name.back()));
        return true;
    }
};

TEST_F(AgentTest, WhatOneHostSavesAnotherFinds) {
    const RedisServer server;
    const std::string a = Empty("a");
    const std::string b = Empty("b");
    const auto one = StartAgent(a, server.Url());
    const auto other = StartAgent(b, server.Url());
    Save(a, "first");
    EXPECT_TRUE(Eventually([&] { return Has(b, "first"); }));
    Save(b, "second");
    EXPECT_TRUE(Eventually([&] { return Has(a, "second"); }));
    for (const auto& agent : {one.get(), other.get()}) {
        ::kill(static_cast<pid_t>(agent->Id()), SIGTERM);
        EXPECT_EQ(agent->Wait(), kDone);
    }
}

TEST_F(AgentTest, ItBeginsWithAllThatIsThere) {
    const RedisServer server;
    const std::string a = MakeIn("a", ManyEffects(0, 300));
    EXPECT_EQ(Run({"push", MakeIn("b", ManyEffects(200, 300)), server.Url()}), kDone);
    const auto agent = StartAgent(a, server.Url());
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 500; }));
    const std::string all = MakeIn("all", ManyEffects(0, 500));
    EXPECT_TRUE(Eventually([&] { return Run({"diff", "--time", a, all}) == kDone; }));
}

TEST_F(AgentTest, ItNoticesWhatAPushHasSent) {
    const RedisServer server;
    const std::string a = Empty("a");
    const auto agent = StartAgent(a, server.Url());
    EXPECT_TRUE(Eventually([&] { return server.Ask({"KEYS", "*"}).list.size() == 1; }));
    EXPECT_EQ(Run({"push", MakeIn("b", ThreeEffects()), server.Url()}), kDone);
    EXPECT_TRUE(Eventually([&] {
        return std::filesystem::exists(a + "/vornFxoCache.dat") &&
               Run({"diff", "--time", a, File("b")}) == kDone;
    }));
}

TEST_F(AgentTest, AServerThatComesBackEmptyGetsEverythingAgain) {
    RedisServer server;
    const std::string a = MakeIn("a", ManyEffects(0, 100));
    const auto agent = StartAgent(a, server.Url());
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 100; }));
    server.Kill();
    Save(a, "meanwhile");
    server.Start();
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 101; }));
    server.Ask({"FLUSHALL"});
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 101; }));
}

TEST_F(AgentTest, ItMayStartBeforeTheServer) {
    RedisServer server;
    server.Kill();
    const std::string a = MakeIn("a", ManyEffects(0, 10));
    const auto agent = StartAgent(a, server.Url());
    Save(a, "meanwhile");
    server.Start();
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 11; }));
}

TEST_F(AgentTest, AFrozenServerStopsNoHost) {
    const RedisServer server;
    const std::string a = MakeIn("a", ManyEffects(0, 10));
    const auto agent = StartAgent(a, server.Url());
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 10; }));
    server.Freeze();
    for (int i = 0; i < 30; ++i) {
        Save(a, "frozen " + std::to_string(i));
    }
    server.Thaw();
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 40; }));
}

TEST_F(AgentTest, AFullServerGetsTheRestOnceItHasRoom) {
    const RedisServer server({"--maxmemory", "3mb"});
    const std::string a = MakeIn("a", ManyEffects(0, 2000));
    const auto agent = StartAgent(a, server.Url());
    EXPECT_TRUE(Eventually([&] { return server.Info("errorstats", "errorstat_OOM:count=") > 0; }));
    server.Ask({"CONFIG", "SET", "maxmemory", "0"});
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 2000; }));
}

TEST_F(AgentTest, ADamagedValueIsMendedByThoseWhoHaveTheEffect) {
    const RedisServer server;
    const std::string a = MakeIn("a", ThreeEffects());
    const auto one = StartAgent(a, server.Url());
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 3; }));
    const std::string key = KeyOf("bb");
    const std::string value = server.Ask({"GET", key}).text;
    // The footer stays as it was.
    server.Ask({"SETRANGE", key, "2", "x"});
    const std::string b = Empty("b");
    const auto other = StartAgent(b, server.Url());
    EXPECT_TRUE(Eventually([&] {
        return std::filesystem::exists(b + "/vornFxoCache.dat") &&
               Run({"diff", "--time", a, b}) == kDone;
    }));
    EXPECT_EQ(server.Ask({"GET", key}).text, value);
}

TEST_F(AgentTest, ARescanFindsWhatNoNoticeTold) {
    const RedisServer server;
    const std::string a = MakeIn("a", ThreeEffects());
    const auto agent = StartAgent(a, server.Url(), "0.1", "1");
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 3; }));
    server.Ask({"DEL", KeyOf("bb")});
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 3; }));
}

TEST_F(AgentTest, ConnectionsThatAreCutAreMadeAgain) {
    const RedisServer server;
    const std::string a = Empty("a");
    const std::string b = Empty("b");
    const auto one = StartAgent(a, server.Url());
    const auto other = StartAgent(b, server.Url());
    for (int i = 0; i < 5; ++i) {
        const std::string name = "effect " + std::to_string(i);
        Save(a, name);
        EXPECT_TRUE(Eventually([&] { return Has(b, name); }));
        server.Ask({"CLIENT", "KILL", "TYPE", i % 2 == 0 ? "pubsub" : "normal"});
    }
}

TEST_F(AgentTest, ItSharesThroughAProxy) {
    if (!HasProgram("nutcracker")) { GTEST_SKIP() << "no nutcracker is installed"; }
    const RedisServer one;
    const RedisServer other;
    const RedisServer proxy = RedisServer::ProxyOf(one, other);
    const std::string a = Empty("a");
    const std::string b = Empty("b");
    const auto agentA = StartAgent(a, proxy.Url("?proxy=1"));
    const auto agentB = StartAgent(b, proxy.Url("?proxy=1"));
    for (int i = 0; i < 5; ++i) {
        const std::string name = "effect " + std::to_string(i);
        Save(i % 2 == 0 ? a : b, name);
        EXPECT_TRUE(Eventually([&] { return Has(i % 2 == 0 ? b : a, name); }));
    }
}

TEST_F(AgentTest, HostsReloadNoMoreOftenThanAllowed) {
    const RedisServer server;
    const std::string a = Empty("a");
    const auto agent = StartAgent(a, server.Url(), "3600");
    EXPECT_TRUE(
        Eventually([&] { return server.Info("commandstats", "cmdstat_scan:calls=") == 1; }));
    EXPECT_EQ(Run({"push", MakeIn("b", ThreeEffects()), server.Url()}), kDone);
    EXPECT_TRUE(Eventually([&] {
        return std::filesystem::exists(a + "/vornFxoCache.dat") &&
               Run({"diff", "--time", a, File("b")}) == kDone;
    }));
    const Format::Bytes before = Format::ReadWholeFile(a + "/vornFxoCache.dat");
    EXPECT_EQ(Run({"push", MakeIn("c", ManyEffects(0, 5)), server.Url()}), kDone);
    // Each second, the agent asks for the server's mark, so it has been awake after a few of these.
    const auto marksRead = [&] { return server.Info("commandstats", "cmdstat_get:calls="); };
    const std::uint64_t marksBefore = marksRead();
    EXPECT_TRUE(Eventually([&] { return marksRead() > marksBefore + 3; }));
    EXPECT_EQ(Format::ReadWholeFile(a + "/vornFxoCache.dat"), before);
}

TEST_F(AgentTest, AnAgentThatIsKilledReleasesTheLockInOrder) {
    const RedisServer server;
    EXPECT_EQ(Run({"push", MakeIn("a", ManyEffects(0, 3000)), server.Url()}), kDone);
    int killed = 0;
    for (int i = 0; i < 5; ++i) {
        const std::string cache = Empty("kill " + std::to_string(i));
        SharedCache shared(CStr(cache.c_str()));
        const auto agent = StartAgent(cache, server.Url());
        // Waits for the batch: the lock is held for as long as that takes.
        while (!std::filesystem::exists(cache + "/vornFxoCache.dat")) {
            std::this_thread::yield();
        }
        const std::uint32_t held = shared.Mutex().Acquire(0);
        if (held != kWaitTimedOut) {
            shared.Mutex().Release();
            continue;
        }
        agent->Kill();
        ++killed;
        EXPECT_EQ(shared.Mutex().Acquire(60000), kWaitAcquired);
        shared.Mutex().Release();
    }
    EXPECT_GT(killed, 0);
}

TEST_F(AgentTest, AnAgentWhoseWorkIsKilledFails) {
    const RedisServer server;
    const std::string a = MakeIn("a", ThreeEffects());
    const auto agent = StartAgent(a, server.Url());
    EXPECT_TRUE(Eventually([&] { return server.EffectKeys().size() == 3; }));
    const std::string id = std::to_string(agent->Id());
    pid_t worker = 0;
    std::ifstream("/proc/" + id + "/task/" + id + "/children") >> worker;
    ASSERT_GT(worker, 0);
    ::kill(worker, SIGKILL);
    EXPECT_EQ(agent->Wait(), kFailed);
    EXPECT_EQ(Run({"list", a}), kDone);
}

TEST_F(AgentTest, BadArgumentsAreRefused) {
    const std::string a = MakeIn("a", ThreeEffects());
    EXPECT_EQ(Run({"agent", a, "redis://host", "--every", "-1"}), kUsage);
    EXPECT_EQ(Run({"agent", a, "redis://host", "--every", "nan"}), kUsage);
    EXPECT_EQ(Run({"agent", a, "redis://host", "--rescan", "0"}), kUsage);
    EXPECT_EQ(Run({"agent", a, "http://host"}), kUsage);
    EXPECT_EQ(Run({"agent", File("missing"), "redis://host"}), kNo);
    EXPECT_THAT(err_, HasSubstr("no such file or directory"));
}

}  // namespace
}  // namespace Quorvel::Tool
