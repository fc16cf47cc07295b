#pragma once

#include <chrono>
#include <cstdint>

namespace EffectHost {

inline std::uint64_t ToMicroseconds(std::chrono::nanoseconds time) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

// Time spent on something, summed over many pieces of work.
class TimeAccount {
public:
    void Add(std::chrono::nanoseconds time) { total_ += time; }

    std::uint64_t Microseconds() const { return ToMicroseconds(total_); }

private:
    std::chrono::nanoseconds total_{0};
};

// Starts when it is constructed.
class Stopwatch {
public:
    std::chrono::nanoseconds Elapsed() const { return std::chrono::steady_clock::now() - start_; }
    std::uint64_t Microseconds() const { return ToMicroseconds(Elapsed()); }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Adds the time of its scope to an account.
class TimedScope {
public:
    explicit TimedScope(TimeAccount& account) : account_(account) {}
    TimedScope(const TimedScope&) = delete;
    TimedScope& operator=(const TimedScope&) = delete;
    ~TimedScope() { account_.Add(stopwatch_.Elapsed()); }

private:
    TimeAccount& account_;
    Stopwatch stopwatch_;
};

}  // namespace EffectHost
