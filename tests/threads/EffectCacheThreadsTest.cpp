#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "effectcache/CacheClient.h"

// Many threads of one process on one cache.
namespace Quorvel::Testing {

namespace {

constexpr int kThreads = 8;
constexpr int kNames = 12;
constexpr int kRounds = 60;
constexpr std::size_t kSize = 60000;

std::string NameOf(int index) {
    return "effect " + std::to_string(index);
}

// The bytes of an effect. They begin with its name and version, on which the rest depends.
Bytes BytesOf(int index, int version) {
    return EffectBytes('[' + NameOf(index) + " version " + std::to_string(version) + ']', kSize);
}

// True if the bytes are a complete version of the effect.
bool BelongTo(const Bytes& bytes, int index) {
    const auto end = std::find(bytes.begin(), bytes.end(), static_cast<unsigned char>(']'));
    const std::string label(bytes.begin(), end);
    return label.starts_with('[' + NameOf(index) + " version ") &&
           bytes == EffectBytes(label + ']', kSize);
}

// Caches and searches effects in an order of the thread's own. The pending effects often reach the
// size at which the cache saves by itself.
void Work(CacheClient& cache, int thread, std::atomic<int>& wrong) {
    for (int round = 0; round < kRounds; ++round) {
        const int added = (thread * 5 + round * 7) % kNames;
        cache.Add(NameOf(added), BytesOf(added, thread * kRounds + round), round % 2 == 0);
        const auto own = cache.Find(NameOf(added));
        const int searched = (thread * 3 + round * 5) % kNames;
        const auto found = cache.Find(NameOf(searched));
        if (!own || !BelongTo(*own, added) || (found && !BelongTo(*found, searched))) { ++wrong; }
        cache->SetEnabled(round % 3 != 0);
        cache->IsEnabled();
    }
}

template <typename Worker>
void RunThreads(const Worker& worker) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&worker, thread] { worker(thread); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void ExpectWholeCache(const TemporaryDirectory& directory) {
    CacheClient fresh(directory);
    EXPECT_EQ(fresh.InFile(), std::uint64_t{kNames});
    for (int index = 0; index < kNames; ++index) {
        const auto bytes = fresh.Find(NameOf(index));
        ASSERT_TRUE(bytes) << index;
        EXPECT_TRUE(BelongTo(*bytes, index)) << index;
    }
}

TEST(EffectCacheThreads, ShareOneCache) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    std::atomic<int> wrong{0};
    RunThreads([&](int thread) { Work(cache, thread, wrong); });
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(cache.InFile(), 0u);
    cache->SetEnabled(true);
    EXPECT_TRUE(cache->IsEnabled());
    cache.Close();
    ExpectWholeCache(directory);
}

TEST(EffectCacheThreads, WithACacheEachShareOneFile) {
    const TemporaryDirectory directory;
    std::atomic<int> wrong{0};
    RunThreads([&](int thread) {
        CacheClient cache(directory);
        Work(cache, thread, wrong);
        if (!cache->IsEnabled()) { cache->SetEnabled(true); }
        if (!cache->IsEnabled()) { ++wrong; }
    });
    EXPECT_EQ(wrong, 0);
    ExpectWholeCache(directory);
}

// Each thread caches one name of its own, so it knows which bytes to find.
TEST(EffectCacheThreads, FindTheLastBytesThatTheyCached) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    std::atomic<int> wrong{0};
    RunThreads([&](int thread) {
        for (int version = 0; version < kRounds; ++version) {
            cache.Add(NameOf(thread), BytesOf(thread, version));
            if (cache.Find(NameOf(thread)) != BytesOf(thread, version)) { ++wrong; }
        }
    });
    EXPECT_EQ(wrong, 0);
    cache.Close();
    CacheClient fresh(directory);
    for (int thread = 0; thread < kThreads; ++thread) {
        EXPECT_EQ(fresh.Find(NameOf(thread)), BytesOf(thread, kRounds - 1));
    }
}

}  // namespace

}  // namespace Quorvel::Testing
