#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/EffectSource.h"

namespace Quorvel::Benchmarks {

// One transfer between memory and the cache's file.
struct Transfer {
    enum class Kind : std::uint8_t {
        Read,
        Write,
        Grow,  // a write behind the end of the file
    };
    Kind kind;
    std::uint64_t offset;
    std::uint64_t length;
    std::size_t effect;  // how many effects the phase had finished before
};

struct PhaseTransfers {
    std::vector<Transfer> transfers;
    std::size_t effects = 0;
    std::uint64_t calls = 0;           // all system calls of the phase
    std::uint64_t fileSizeBefore = 0;  // bytes

    // Bytes that transfers of a kind moved.
    std::uint64_t Bytes(Transfer::Kind kind) const;
};

// What the cache did to its file while it saved all effects, was opened again, and found all.
struct RecordedTransfers {
    PhaseTransfers save;
    PhaseTransfers open;
    PhaseTransfers allOnce;
};

// The work: so many effects of a source, and two orders of them.
struct FloorTask {
    FloorTask(const std::string& effectsPath, std::uint64_t seedNumber, std::size_t count);

    std::string path;
    std::uint64_t seed;
    std::vector<Effect> effects;
    std::vector<std::size_t> saveOrder;
    std::vector<std::size_t> searchOrder;
};

// Runs the cache on the task in a process of its own, in a new folder below the given one, and
// records at the border between process and system, so that it does not matter how the library
// makes its transfers. Throws std::runtime_error when the file is touched in a way that the record
// can't express, std::system_error when the system allows no tracing.
RecordedTransfers RecordTransfers(const FloorTask& task, const std::string& directory);

// Writes the transfers as text: a line for each phase with its name, then a line for each transfer:
// effect, read, write or grow, number of the first page, bytes.
void WriteTransfers(const std::string& file, const RecordedTransfers& recorded);

}  // namespace Quorvel::Benchmarks
