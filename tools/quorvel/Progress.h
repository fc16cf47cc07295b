#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/quorvel/Session.h"

namespace Quorvel::Tool {

// Shows a progress bar on standard error for its lifetime, if that is a terminal and neither
// --quiet nor --json was given. Shows nothing for work that ends quickly.
class Progress {
public:
    // For work that consists of `total` equal parts.
    Progress(const Session& session, std::string label, std::uint64_t total);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    // Counts parts that are done. Throws Failure if the user has asked the program to stop.
    void Add(std::uint64_t parts = 1);

private:
    using Clock = std::chrono::steady_clock;
    void Show();

    const Session& session_;
    const std::string label_;
    const std::uint64_t total_;
    const bool isOn_;
    std::uint64_t done_ = 0;
    Clock::time_point next_;  // when the bar is drawn again
    bool isShown_ = false;
};

}  // namespace Quorvel::Tool
