#pragma once

#include <chrono>
#include <cstddef>
#include <iosfwd>

namespace EffectHost {

enum class ProgressStyle {
    None,
    Lines,  // a line for every tenth of the work
    Bar,    // one line that redraws itself
};

// Shows how far a run has come.
class Progress {
public:
    Progress(std::ostream& out, ProgressStyle style, std::size_t total);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Another effect is done; compiled tells whether it had to be compiled.
    void Advance(bool compiled);

private:
    void DrawBar();
    void PrintLine();

    std::ostream& out_;
    ProgressStyle style_;
    std::size_t total_;
    std::size_t done_ = 0;
    std::size_t compiled_ = 0;
    std::chrono::steady_clock::time_point lastDrawn_;
};

}  // namespace EffectHost
