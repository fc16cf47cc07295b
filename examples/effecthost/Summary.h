#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace EffectHost {

// What a run did. Times are measured, in microseconds.
struct Summary {
    std::size_t sources = 0;    // .hlsl files
    std::size_t effects = 0;    // variants
    std::size_t processes = 1;  // each did all of the work; the numbers below are their sums
    std::size_t hits = 0;
    std::size_t untimed = 0;        // hits of which nothing is known of the time to compile them
    std::size_t misses = 0;         // not in the cache: compiled
    std::size_t damaged = 0;        // in the cache, but the checksum was wrong: compiled again
    std::size_t verified = 0;       // recompiled to the same bytes that the cache returned
    std::size_t madePermanent = 0;  // hits that were not permanent before
    std::size_t effectsInFile = 0;
    std::size_t mostCompilations = 0;  // of the effect that was compiled most often

    std::uint64_t wallTime = 0;  // of the whole run
    std::uint64_t compileTime = 0;
    std::uint64_t openTime = 0;    // in the cache: constructing the object
    std::uint64_t searchTime = 0;  // in the cache: searches
    std::uint64_t storeTime = 0;   // in the cache: queueing effects and saving them
    std::uint64_t checkTime = 0;   // at the end: looking all effects up again, and verifying some
    std::uint64_t sparedTime = 0;  // how long the hits took to compile, except those untimed

    std::vector<std::size_t> compiledEffects;  // numbers of the variants

    // Variants that do not compile, by their numbers, with the compiler's messages.
    std::map<std::size_t, std::string> broken;

    std::uint64_t CacheTime() const { return openTime + searchTime + storeTime; }
};

// Adds the counts and times of one of several processes.
void AddProcess(Summary& sum, const Summary& process);

// Convert to one line of JSON and back. FromJson throws std::exception.
std::string ToJson(const Summary& summary);
Summary FromJson(const std::string& line);

// A few readable lines.
std::string ToText(const Summary& summary);

// Says which effects do not compile: of those with the same message, only the first.
std::string BrokenText(const Summary& summary);

// A readable time: "840 us", "12.3 ms", "9.08 s".
std::string FormatTime(std::uint64_t microseconds);

}  // namespace EffectHost
