#pragma once

#include <chrono>
#include <cstdint>

namespace EffectHost {

// Time that is spent on something, summed up over many pieces of work.
class TimeAccount {
public:
    void Add(std::chrono::nanoseconds time) { total_ += time; }

    std::uint64_t Microseconds() const {
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(total_).count());
    }

private:
    std::chrono::nanoseconds total_{0};
};

// Adds the time of its scope to an account.
class Stopwatch {
public:
    explicit Stopwatch(TimeAccount& account) : account_(account) {}
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;
    ~Stopwatch() { account_.Add(std::chrono::steady_clock::now() - start_); }

private:
    TimeAccount& account_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace EffectHost
