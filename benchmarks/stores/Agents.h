#pragma once

#include <cstddef>
#include <cstdint>

namespace Quorvel::Benchmarks {

// The agents, which run in processes of their own (Agents.cpp). Every agent's first arguments are:
// store, directory, path of the effects, seed, number of the first effect, number of effects.

// Sends "0" when it is ready. Then, for each number it receives, saves that number of its effects
// and answers with the nanoseconds that this took.
constexpr char kSaverAgent[] = "Saver";

// Takes two more arguments: the path of a StopFlag, and a number of its own. Sends "0" when it is
// ready. When told to go, it searches until the flag is up, and sends the number of searches and
// their nanoseconds.
constexpr char kSearcherAgent[] = "Searcher";

// Do all the work and send the memory peaks.
constexpr char kSaveMemoryAgent[] = "SaveMemory";
constexpr char kSearchMemoryAgent[] = "SearchMemory";

// Does the work between marks, while it is traced.
constexpr char kCallsAgent[] = "Calls";
enum CallsPhase : std::uint16_t {
    kOtherPhase,
    kSavePhase,
    kAllOncePhase,
    kHot20Phase,
    kAbsentPhase,
};
constexpr std::size_t kTracedSearches = 1000;

}  // namespace Quorvel::Benchmarks
