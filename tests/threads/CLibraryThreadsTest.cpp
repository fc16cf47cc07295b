// Many threads of one process on one handle of the C library.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "capi/Handles.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

constexpr int kCallers = 8;
constexpr int kCallsEach = 60;

// Adds and finds effects, and provokes errors of this thread's own. Counts wrong answers.
void Work(const CacheHandle& cache, int thread, std::atomic<int>& wrong) {
    for (int round = 0; round < kCallsEach; ++round) {
        const std::string name = std::to_string(thread) + ' ' + std::to_string(round);
        const std::string code(40000, static_cast<char>('a' + round % 26));
        if (AddEffect(cache, name, code) != QUORVEL_OK) { ++wrong; }
        if (FindEffect(cache, name) != code) { ++wrong; }
        const bool isEven = thread % 2 == 0;
        const std::string missing = isEven ? "missing" : "";
        const std::string error =
            isEven ? "not found" : "invalid argument: a name has 1 to 65536 bytes";
        if (FindEffect(cache, missing) || error != quorvel_last_error()) { ++wrong; }
        quorvel_cache_set_enabled(cache.get(), round % 2);
        quorvel_cache_is_enabled(cache.get());
    }
}

}  // namespace

TEST(CLibraryThreads, GetTheirOwnEffectsAndErrors) {
    const TemporaryDirectory directory;
    const CacheHandle cache = OpenCache(directory.Path().string());
    ASSERT_TRUE(cache);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kCallers; ++thread) {
        threads.emplace_back([&, thread] { Work(cache, thread, wrong); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(quorvel_cache_save(cache.get()), QUORVEL_OK);
    EXPECT_EQ(quorvel_cache_effects_in_file(cache.get()), std::uint64_t{kCallers * kCallsEach});
}

}  // namespace Quorvel::Testing
