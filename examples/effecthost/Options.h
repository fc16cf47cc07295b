#pragma once

#include <cstddef>
#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace EffectHost {

// The command line with defaults filled in.
struct Options {
    std::filesystem::path cacheDirectory;
    std::filesystem::path effectsFolder;
    std::size_t processes = 1;
    std::size_t start = 0;               // number of the variant to start with
    std::size_t saveEvery = 0;           // compiled effects between forced saves; 0 forces none
    std::size_t verify = 0;              // effects to recompile and compare
    std::vector<std::string> permanent;  // patterns of effect names
    std::filesystem::path listing;       // empty for none
    std::string share;                   // the URL of a Redis server; empty for none
    bool keepGoing = false;              // past effects that do not compile
    bool quiet = false;
    bool json = false;
    bool worker = false;  // one of several processes, whose parent checks the cache
};

// Reads the words of the command line, the program's name first. When they ask for help or
// the version, prints it to out and returns nothing. Throws Failure(BadUsage).
std::optional<Options> ParseOptions(const std::vector<std::string>& words,
                                    const std::filesystem::path& defaultEffects, std::ostream& out);

// The arguments that make another process do the same work, starting with the start-th variant, and
// report to this one.
std::vector<std::string> WorkerArguments(const Options& options, std::size_t start);

}  // namespace EffectHost
