#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

// Runs the program on damaged files.
namespace Quorvel::Tool {

// A command and its arguments. In them, {file} stands for a damaged file, {directory} for an empty
// directory, and {output} for a path where there is nothing.
using CommandLine = std::vector<std::string>;

// The commands that accept any file and work on this system.
std::vector<CommandLine> CommandsForDamagedFiles();

struct DamagedFileRuns {
    std::uint64_t files = 0;
    std::map<std::string, std::map<int, std::uint64_t>> exitCodes;  // by the name of the command
    std::uint64_t saved = 0;                                        // effects, in new caches
    std::vector<std::string> problems;
};
std::ostream& operator<<(std::ostream& stream, const DamagedFileRuns& runs);

// Runs every command on each of `count` randomly damaged caches. Each run must end with the exit
// code kDone or kNo, leave the file as it is, and print valid JSON if it has --json. What it leaves
// in {directory} must be a sound cache, in which an effect whose bytes and name were not damaged
// has the right bytes. The same seed makes the same files.
DamagedFileRuns RunOnDamagedFiles(std::uint64_t seed, std::uint64_t count,
                                  const std::vector<CommandLine>& commands);

}  // namespace Quorvel::Tool
