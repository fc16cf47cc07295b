#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
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

// Shows the progress of a run.
class Progress {
public:
    // Returns the time since the work began.
    using Clock = std::function<std::chrono::nanoseconds()>;

    // The bar fits into width columns. Without a clock, the work begins now.
    Progress(std::ostream& out, ProgressStyle style, std::size_t total,
             std::size_t width = kUsualWidth, Clock clock = {});
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Ends the line of an unfinished bar.
    ~Progress();

    // Counts another effect as done; compiled is true if it had to be compiled.
    void Advance(bool compiled);

    // Sets the number of effects that are done, and how many of them were compiled.
    void Show(std::size_t done, std::size_t compiled);

private:
    bool IsTimeToDraw();
    void DrawBar();
    void PrintLine(std::size_t doneBefore);
    void PrintReport();
    std::string Rate() const;

    std::ostream& out_;
    ProgressStyle style_;
    std::size_t total_;
    std::size_t width_;
    Clock clock_;
    std::size_t done_ = 0;
    std::size_t compiled_ = 0;
    bool lineIsOpen_ = false;
    std::chrono::steady_clock::time_point lastDrawn_;
};

struct ProgressReport {
    std::size_t done = 0;
    std::size_t compiled = 0;
};

// Parses a line of the style Reports; nothing for any other line.
std::optional<ProgressReport> ParseProgressReport(const std::string& line);

}  // namespace EffectHost
