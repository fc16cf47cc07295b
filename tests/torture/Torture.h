#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace Quorvel::Torture {

struct Options {
    std::string directory;  // must be empty; the run leaves its file there
    std::uint64_t seed = 1;
    std::uint64_t seconds = 5;
    std::uint64_t processes = 4;  // 2 to 8
    std::uint64_t kills = 0;      // the run ends after this number; 0 for an orderly run

    // The most free bytes that the cache's volume reports; at random times it reports fewer, down
    // to none. 0 for the real number.
    std::uint64_t room = 0;

    // Fills the directory's volume with a file of random size, up to all free bytes. The directory
    // needs a small volume of its own.
    bool fillsVolume = false;

    bool IsOrderly() const { return kills == 0; }
    bool MayEvict() const { return room != 0 || fillsVolume; }
};

// A worker's exit code if its objects refuse a lock that a dead process left abandoned.
constexpr int kRefused = 3;

// The result of a run.
struct Report {
    Options options;
    std::uint64_t processes = 0;  // started
    std::uint64_t killed = 0;
    std::vector<std::uint64_t> killedAt;  // by Moment
    std::uint64_t crashed = 0;            // ended with any other exit code
    std::uint64_t hung = 0;               // killed because they did not end in time
    std::uint64_t refused = 0;            // ended because of an abandoned lock
    std::uint64_t checks = 0;             // of the file's structure
    std::vector<std::string> structureProblems;
    std::vector<std::uint64_t> counts;  // by Count
    std::uint64_t effectsAtEnd = 0;

    // True if every figure is allowed. Neither deaths nor a full volume may cost a saved effect,
    // but caches may become inert on a volume that fills up.
    bool IsGood() const;
};

// Runs several processes on one cache until the time is up or all kills are done.
Report RunTorture(const Options& options);

std::ostream& operator<<(std::ostream& stream, const Report& report);

}  // namespace Quorvel::Torture
