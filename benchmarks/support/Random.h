#pragma once

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <utility>
#include <vector>

namespace Quorvel::Benchmarks {

// Pseudo-random numbers that are the same on every machine (SplitMix64).
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t Next() {
        std::uint64_t mixed = state_ += 0x9E3779B97F4A7C15;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
        return mixed ^ (mixed >> 31);
    }

    // From 0 to limit - 1.
    std::uint64_t Below(std::uint64_t limit) { return Next() % limit; }

    // Above 0, up to 1.
    double Fraction() { return static_cast<double>((Next() >> 11) + 1) * 0x1p-53; }

private:
    std::uint64_t state_;
};

// The numbers from 0 to count - 1 in random order.
inline std::vector<std::size_t> ShuffledOrder(std::size_t count, std::uint64_t seed) {
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    Random random(seed);
    for (std::size_t last = count; last > 1; --last) {
        std::swap(order[last - 1], order[random.Below(last)]);
    }
    return order;
}

// length draws from the items, all equally likely.
inline std::vector<std::size_t> RandomDraws(const std::vector<std::size_t>& items,
                                            std::size_t length, std::uint64_t seed) {
    std::vector<std::size_t> draws(length);
    Random random(seed);
    for (std::size_t& draw : draws) {
        draw = items[random.Below(items.size())];
    }
    return draws;
}

}  // namespace Quorvel::Benchmarks
