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
        Grow,  // a write at or past the end of the file
    };
    Kind kind;
    std::uint64_t offset;
    std::uint64_t length;
    std::size_t effect;  // number of effects that the phase had finished before
};

struct PhaseTransfers {
    std::vector<Transfer> transfers;
    std::size_t effects = 0;
    std::uint64_t calls = 0;           // all system calls of the phase
    std::uint64_t fileSizeBefore = 0;  // bytes

    // Bytes in transfers of a kind.
    std::uint64_t Bytes(Transfer::Kind kind) const;
};

// The transfers of a cache that saved all effects, was opened again, and found all of them.
struct RecordedTransfers {
    PhaseTransfers save;
    PhaseTransfers open;
    PhaseTransfers allOnce;
};

// The work: a number of effects from a source, and the orders of saving and searching them.
struct FloorTask {
    FloorTask(const std::string& effectsPath, std::uint64_t seedNumber, std::size_t count);

    std::string path;
    std::uint64_t seed;
    std::vector<Effect> effects;
    std::vector<std::size_t> saveOrder;
    std::vector<std::size_t> searchOrder;
};

// Runs the cache on the task in a process of its own, in a new folder below the given one. Records
// system calls, so that it does not matter how the library makes its transfers. Throws
// std::runtime_error when the file is used in a way that the record can't express, and
// std::system_error when the system does not allow tracing.
RecordedTransfers RecordTransfers(const FloorTask& task, const std::string& directory);

// Writes the transfers as text: for each phase a line with its name, then a line for each transfer
// with effect, kind (read, write or grow), number of the first page, and bytes.
void WriteTransfers(const std::string& file, const RecordedTransfers& recorded);

}  // namespace Quorvel::Benchmarks
