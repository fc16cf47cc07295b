#pragma once

#include <chrono>
#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>

namespace EffectHost {

enum class ProgressStyle {
    None,
    Lines,    // a line for every tenth of the work
    Bar,      // one line that redraws itself
    Reports,  // lines for ParseProgressReport
};

constexpr std::size_t kUsualWidth = 80;

// Shows how far a run has come.
class Progress {
public:
    // The bar fits into a terminal with so many columns.
    Progress(std::ostream& out, ProgressStyle style, std::size_t total,
             std::size_t width = kUsualWidth);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Ends the line of a bar that did not come to its end.
    ~Progress();

    // Another effect is done; compiled tells whether it had to be compiled.
    void Advance(bool compiled);

    // So many effects are done now, and so many of them were compiled.
    void Show(std::size_t done, std::size_t compiled);

private:
    bool IsTimeToDraw();
    void DrawBar();
    void PrintLine(std::size_t doneBefore);
    void PrintReport();

    std::ostream& out_;
    ProgressStyle style_;
    std::size_t total_;
    std::size_t width_;
    std::size_t done_ = 0;
    std::size_t compiled_ = 0;
    bool lineIsOpen_ = false;
    std::chrono::steady_clock::time_point lastDrawn_;
};

struct ProgressReport {
    std::size_t done = 0;
    std::size_t compiled = 0;
};

// What a line of the style Reports says; nothing when it is another line.
std::optional<ProgressReport> ParseProgressReport(const std::string& line);

}  // namespace EffectHost
