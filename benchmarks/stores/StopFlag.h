#pragma once

#include <atomic>
#include <string>

namespace Quorvel::Benchmarks {

// A flag in a file that several processes have mapped, so that checking it costs one load.
class StopFlag {
public:
    // Opens the file, or creates it with the flag down. Throws std::system_error.
    explicit StopFlag(const std::string& path);
    StopFlag(const StopFlag&) = delete;
    StopFlag& operator=(const StopFlag&) = delete;
    ~StopFlag();

    void Raise() { flag_->store(1, std::memory_order_relaxed); }
    bool IsUp() const { return flag_->load(std::memory_order_relaxed) != 0; }

private:
    std::atomic<int>* flag_;
};

}  // namespace Quorvel::Benchmarks
