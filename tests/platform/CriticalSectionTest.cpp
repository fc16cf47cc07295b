#include "platform/CriticalSection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace Quorvel::Testing {

TEST(CriticalSection, AdmitsOneThreadAtATime) {
    constexpr int kThreads = 4;
    constexpr int kTimes = 5000;
    Platform::CriticalSection section;
    volatile int sum = 0;
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([&] {
            for (int times = 0; times < kTimes; ++times) {
                section.Enter();
                sum = sum + 1;
                section.Leave();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sum, kThreads * kTimes);
}

TEST(CriticalSection, IsLeftOnceEachEntryIsLeft) {
    Platform::CriticalSection section;
    std::atomic<bool> left{false};
    section.Enter();
    section.Enter();
    section.Leave();
    std::future<bool> other = std::async(std::launch::async, [&] {
        section.Enter();
        const bool afterLeave = left;
        section.Leave();
        return afterLeave;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    left = true;
    section.Leave();
    EXPECT_TRUE(other.get());
}

TEST(CriticalSectionGuard, StaysInsideForItsScope) {
    Platform::CriticalSection section;
    std::atomic<bool> left{false};
    std::future<bool> other;
    {
        const Platform::CriticalSectionGuard outer(section);
        const Platform::CriticalSectionGuard inner(section);
        other = std::async(std::launch::async, [&] {
            const Platform::CriticalSectionGuard guard(section);
            return left.load();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        left = true;
    }
    EXPECT_TRUE(other.get());
}

}  // namespace Quorvel::Testing
