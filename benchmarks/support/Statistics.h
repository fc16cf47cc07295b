#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Quorvel::Benchmarks {

// Nanoseconds since it was made.
class Stopwatch {
public:
    double Nanoseconds() const {
        return std::chrono::duration<double, std::nano>(Clock::now() - start_).count();
    }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_ = Clock::now();
};

// The value below which that part of the samples lies, interpolated; 0 without samples.
inline double Quantile(std::vector<double> samples, double part) {
    if (samples.empty()) {
        return 0;
    }
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
