#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace Quorvel::Torture {

struct Options {
    std::string directory;  // an empty one; the run leaves its file there
    std::uint64_t seed = 1;
    std::uint64_t seconds = 5;
    std::uint64_t processes = 4;  // 2 to 8
    std::uint64_t kills = 0;      // 0 for an orderly run; else the run ends after so many

    // The cache is told that its volume has at most so many free bytes, and now and then fewer,
    // down to none. 0: it is told the truth.
    std::uint64_t room = 0;

    // A file in the directory grows and shrinks at random, up to all that its volume has. The
    // directory needs a small volume of its own.
    bool fillsVolume = false;

    bool IsOrderly() const { return kills == 0; }
    bool MayEvict() const { return room != 0 || fillsVolume; }
};

// How a worker ends that a dead process left a lock which its objects refuse.
constexpr int kRefused = 3;

// What came of a run.
struct Report {
    Options options;
    std::uint64_t processes = 0;  // that were started
    std::uint64_t killed = 0;
    std::uint64_t crashed = 0;  // ended badly by themselves
    std::uint64_t hung = 0;     // had to be ended long after their time
    std::uint64_t refused = 0;  // ended since a dead process had left them an abandoned lock
    std::uint64_t checks = 0;   // of the file's structure
    std::vector<std::string> structureProblems;
    std::vector<std::uint64_t> counts;  // by Count
    std::uint64_t effectsAtEnd = 0;

    // Whether every figure is as it must be. Where processes are killed or the volume fills up,
    // effects may be lost and caches may become inert; wrong bytes must not be served there either.
    bool IsGood() const;
};

// Runs several processes on one cache until the time is up, or the kills are done.
Report RunTorture(const Options& options);

std::ostream& operator<<(std::ostream& stream, const Report& report);

}  // namespace Quorvel::Torture
