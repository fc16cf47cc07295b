#include <chrono>
#include <cstdio>
#include <random>
#include <sstream>
#include <thread>

#include "quorvel/EffectCacheSystem.h"
#include "share/ShareTest.h"
#include "support/Agent.h"
#include "vornutil/RefPtr.h"
#include "vornutil/Tab.h"

namespace Quorvel::Tool {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr unsigned kEffectsPerSave = 10;

// The bytes of an effect are known by its name.
std::string CodeOf(const std::string& name) {
    std::seed_seq seed(name.begin(), name.end());
    std::mt19937 random(seed);
    std::string code(1 + random() % 4000, '\0');
    for (char& byte : code) {
        byte = static_cast<char>(random() % 100);
    }
    return code;
}

std::string NameOf(unsigned host, unsigned number) {
    return std::to_string(host) + " effect " + std::to_string(number);
}

// A host. For each line that it gets, it caches an effect, and now and then saves; it looks for an
// effect of another host, and answers how many effects of others it has found, and how many of
// these were wrong. Arguments: the directory, its number, the number of hosts.
QUORVEL_AGENT(SharingHost) {
    const Util::RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(arguments[0].c_str()));
    const auto self = static_cast<unsigned>(std::stoul(arguments[1]));
    const auto hosts = static_cast<unsigned>(std::stoul(arguments[2]));
    std::mt19937 random(self);
    unsigned found = 0;
    unsigned wrong = 0;
    for (unsigned number = 0; !Testing::AgentReceive().empty(); ++number) {
        const std::string name = NameOf(self, number);
        const std::string code = CodeOf(name);
        cache->CacheCompiledEffect(
            name.c_str(), reinterpret_cast<const unsigned char*>(code.data()), code.size(), false);
        if (number % kEffectsPerSave == kEffectsPerSave - 1) { cache->ForceSaveToFile(); }
        const std::string other = NameOf(static_cast<unsigned>(random()) % hosts,
                                         static_cast<unsigned>(random()) % (number + 1));
        Tab<unsigned char> bytes;
        if (cache->SearchCachedEffects(other.c_str(), bytes)) {
            ++found;
            const std::string expected = CodeOf(other);
            const std::string actual(reinterpret_cast<const char*>(&bytes[0]),
                                     static_cast<std::size_t>(bytes.Count()));
            wrong += actual != expected || !cache->IsEnabled() ? 1 : 0;
        }
        Testing::AgentSend(std::to_string(found) + ' ' + std::to_string(wrong));
    }
    return 0;
}

// Three machines: caches with an agent and two hosts each.
class ShareFaultsTest : public ShareTest {
protected:
    static constexpr unsigned kMachines = 3;
    static constexpr unsigned kHosts = 6;

    using Process = std::unique_ptr<Testing::ChildProcess>;

    void StartAll() {
        for (unsigned i = 0; i < kMachines; ++i) {
            caches_.push_back(Empty(std::to_string(i)));
            agents_.emplace_back();
            StartAgent(i);
        }
        for (unsigned i = 0; i < kHosts; ++i) {
            hosts_.push_back(std::make_unique<Testing::ChildProcess>(
                "SharingHost",
                std::vector{caches_[i % kMachines], std::to_string(i), std::to_string(kHosts)}));
        }
    }

    void StartAgent(unsigned machine) {
        agents_[machine] = Start({"agent", caches_[machine], server_->Url(), "--server-timeout",
                                  "1", "--every", "0.5", "--rescan", "5"});
    }

    // Lets each host cache an effect.
    void Work() {
        for (const Process& host : hosts_) {
            host->Send("work");
        }
        found_ = 0;
        for (const Process& host : hosts_) {
            unsigned found = 0;
            unsigned wrong = 0;
            std::istringstream(host->Receive()) >> found >> wrong;
            EXPECT_EQ(wrong, 0U);
            found_ += found;
        }
        ++rounds_;
    }

    // Ends the hosts, and waits until every cache has every effect.
    void ExpectEverythingEverywhere() {
        while (rounds_ % kEffectsPerSave != 0) {
            Work();
        }
        for (const Process& host : hosts_) {
            EXPECT_EQ(host->Wait(), 0);
        }
        const std::size_t all = kHosts * rounds_;
        for (const std::string& cache : caches_) {
            std::size_t count = 0;
            const bool isComplete = Eventually([&] {
                count = RunJson({"info", cache})["effects"]["count"];
                return count == all;
            });
            EXPECT_TRUE(isComplete) << count << " of " << all;
            const Format::Bytes file = Format::ReadWholeFile(cache + "/vornFxoCache.dat");
            EXPECT_THAT(Format::CheckEffectCache(file), testing::IsEmpty());
            for (const auto& [name, effect] :
                 Format::ReadEffectCache(Format::ReadPackage(file, Format::kCacheStreamLimit))) {
                ASSERT_EQ(std::string(effect.data.begin(), effect.data.end()), CodeOf(name));
            }
        }
    }

    std::unique_ptr<RedisServer> server_;
    std::vector<std::string> caches_;
    std::vector<Process> agents_;
    std::vector<Process> hosts_;
    std::mt19937 random_{1};
    unsigned rounds_ = 0;
    unsigned found_ = 0;  // effects of other hosts
};

// QUORVEL_SHARE_SECONDS sets how long the faults go on.
TEST_F(ShareFaultsTest, WhateverTheServerSuffersEverythingGetsEverywhere) {
    server_ = std::make_unique<RedisServer>();
    StartAll();
    const auto anyKey = [&] {
        const std::vector<std::string> keys = server_->EffectKeys();
        return keys.empty() ? std::string("none") : keys[random_() % keys.size()];
    };
    // What happens to the server, and what ends it.
    const std::vector<std::pair<std::function<void()>, std::function<void()>>> faults = {
        {[&] { server_->Kill(); }, [&] { server_->Start(); }},
        {[&] { server_->Freeze(); }, [&] { server_->Thaw(); }},
        {[&] {
             server_->Ask({"CONFIG", "SET", "maxmemory", "1mb"});
         },
         [&] {
             server_->Ask({"CONFIG", "SET", "maxmemory", "0"});
         }},
        {[&] { server_->Ask({"FLUSHALL"}); }, [] {}},
        {[&] {
             server_->Ask({"CLIENT", "KILL", "TYPE", "normal"});
         },
         [] {}},
        {[&] {
             server_->Ask({"CLIENT", "KILL", "TYPE", "pubsub"});
         },
         [] {}},
        {[&] {
             const std::string key = anyKey();
             server_->Ask({"DEL", key});
             server_->Ask({"LPUSH", key, "x"});
         },
         [] {}},
        {[&] {
             const std::string key = anyKey();
             const std::string value = server_->Ask({"GET", key}).text;
             server_->Ask({"SET", key, value.substr(0, value.size() / 2)});
         },
         [] {}},
        {[&] {
             server_->Ask({"SETRANGE", anyKey(), "3", "wrong bytes"});
         },
         [] {}},
        {[&] {
             const unsigned machine = static_cast<unsigned>(random_()) % kMachines;
             agents_[machine]->Kill();
             StartAgent(machine);
         },
         [] {}},
    };
    std::vector<unsigned> counts(faults.size());
    const auto end = Clock::now() + std::chrono::seconds(Setting("QUORVEL_SHARE_SECONDS", 8));
    while (Clock::now() < end) {
        const std::size_t fault = random_() % faults.size();
        ++counts[fault];
        faults[fault].first();
        for (unsigned rest = static_cast<unsigned>(random_()) % 20; rest > 0; --rest) {
            Work();
            std::this_thread::sleep_for(milliseconds(100));
        }
        faults[fault].second();
    }
    ExpectEverythingEverywhere();
    std::printf("%u effects of %u hosts; faults:", kHosts * rounds_, kHosts);
    for (const unsigned count : counts) {
        std::printf(" %u", count);
    }
    std::printf("; %u effects of other hosts found\n", found_);
}

// QUORVEL_SHARE_KILLS sets the number of kills.
TEST_F(ShareFaultsTest, AnAgentThatIsKilledLosesNothingAndSendsNothingTwice) {
    server_ = std::make_unique<RedisServer>();
    StartAll();
    const unsigned kills = Setting("QUORVEL_SHARE_KILLS", 8);
    for (unsigned i = 0; i < kills; ++i) {
        const unsigned machine = static_cast<unsigned>(random_()) % kMachines;
        const auto moment = Clock::now() + milliseconds(random_() % 1000);
        while (Clock::now() < moment) {
            Work();
            std::this_thread::sleep_for(milliseconds(random_() % 50));
        }
        agents_[machine]->Kill();
        StartAgent(machine);
    }
    ExpectEverythingEverywhere();
    // One more marks the server.
    EXPECT_EQ(server_->Info("commandstats", "cmdstat_set:calls="), kHosts * rounds_ + 1);
    EXPECT_EQ(server_->Info("commandstats", "cmdstat_eval:calls="), 0U);
    std::printf("%u kills, %u effects, %u of other hosts found\n", kills, kHosts * rounds_, found_);
}

}  // namespace
}  // namespace Quorvel::Tool
