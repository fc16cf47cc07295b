#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <ctime>
#include <vector>

namespace Quorvel::Benchmarks {

// What is measured: wall-clock time, or the processor time of all threads of the process, which
// other work on the machine affects less.
enum class Clock { Wall, Processor };

inline const char* ClockName(Clock clock) {
    return clock == Clock::Wall ? "wall" : "processor";
}

// Measures nanoseconds since its construction.
class Stopwatch {
public:
    explicit Stopwatch(Clock clock = Clock::Wall)
        : clock_(clock == Clock::Wall ? CLOCK_MONOTONIC : CLOCK_PROCESS_CPUTIME_ID),
          start_(Now()) {}

    double Nanoseconds() const { return Now() - start_; }

private:
    double Now() const {
        timespec now{};
        ::clock_gettime(clock_, &now);
        return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
    }

    clockid_t clock_;
    double start_;
};

// The value below which the given part of the samples lies, interpolated; 0 without samples.
inline double Quantile(std::vector<double> samples, double part) {
    if (samples.empty()) { return 0; }
    std::sort(samples.begin(), samples.end());
    const double place = part * static_cast<double>(samples.size() - 1);
    const auto below = static_cast<std::size_t>(place);
    const std::size_t above = std::min(below + 1, samples.size() - 1);
    return std::lerp(samples[below], samples[above], place - std::floor(place));
}

inline double Median(const std::vector<double>& samples) {
    return Quantile(samples, 0.5);
}

}  // namespace Quorvel::Benchmarks
