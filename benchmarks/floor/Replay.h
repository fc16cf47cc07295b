#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "floor/Transfers.h"
#include "support/Statistics.h"

namespace Quorvel::Benchmarks {

// Makes recorded transfers again, on a file of its own, with nothing but them and the copies that
// the same effects need: into memory when they are queued, from there into pages when they are
// saved, with the index and the package's state beside them, and out of pages when they are found.
// What is to be done is laid out beforehand; the three steps only walk over it.
class Replay {
public:
    Replay(const FloorTask& task, const RecordedTransfers& recorded, Clock clock);

    // Makes the file as long as the new cache's was. Throws std::runtime_error.
    void Create(const std::string& path) const;

    // With which calls a transfer is made: pread and pwrite, or a seek and a read or write of the
    // standard I/O library, which the cache has to use.
    enum class Calls { Bare, Stdio };

    // Times in nanoseconds, to be taken in this order on a file that was just created; each throws
    // std::runtime_error when a transfer does not work.
    double Save(const std::string& path, Calls calls);
    double Open(const std::string& path, Calls calls);
    double FindAll(const std::string& path, Calls calls);

private:
    static constexpr std::size_t kFrames = 64;
    static constexpr std::size_t kFrameSize = 8192;

    struct Step {
        enum class Kind : std::uint8_t { Read, Write, Grow, Queue, Fill, Empty };
        Kind kind;
        std::uint32_t frame;
        std::uint64_t length;
        std::uint64_t place;  // offset in the file; number of the effect that is queued
    };
    using Steps = std::vector<Step>;

    class FramePlan;

    Steps PlanSave(const PhaseTransfers& phase) const;
    Steps PlanFind(const PhaseTransfers& phase) const;
    double Run(const Steps& steps, const std::string& path, Calls calls);
    template <typename File>
    bool Make(const Steps& steps, const File& file);

    const FloorTask& task_;
    Clock clock_;
    std::uint64_t firstSize_;
    Steps save_;
    Steps open_;
    Steps find_;
    std::vector<unsigned char> frames_;
    std::vector<unsigned char> zeros_;
    std::vector<unsigned char> queue_;
    std::vector<unsigned char> found_;
};

}  // namespace Quorvel::Benchmarks
