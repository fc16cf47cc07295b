#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "floor/Transfers.h"
#include "support/Statistics.h"

namespace Quorvel::Benchmarks {

// Repeats recorded transfers on a file of its own. Apart from that, it only makes the copies that
// the effects need: into memory when they are queued; from there into pages when they are saved,
// together with the index and the package's state; and out of pages when they are found. All steps
// are planned in advance; the timed functions only walk over the plan.
class Replay {
public:
    Replay(const FloorTask& task, const RecordedTransfers& recorded, Clock clock);

    // Creates a file as long as the new cache's. Throws std::runtime_error.
    void Create(const std::string& path) const;

    // The calls that make a transfer: pread and pwrite, or a seek and a read or write of the
    // standard I/O library, which the cache has to use.
    enum class Calls { Bare, Stdio };

    // Times in nanoseconds. Must be called in this order on a file that was just created. Each
    // throws std::runtime_error when a transfer fails.
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
        std::uint64_t place;  // offset in the file, or number of the effect that is queued
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
