#include "Progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>
#include <sstream>
#include <utility>

#include "Stopwatch.h"

namespace EffectHost {

namespace {

constexpr std::size_t kWidestBar = 40;
constexpr std::size_t kNarrowestBar = 8;
constexpr std::size_t kLines = 10;
constexpr std::chrono::milliseconds kRedrawInterval{50};
constexpr const char* kReport = "progress";

// A bar followed by text, in the given number of columns. Without room for both, the text alone.
std::string BarText(std::size_t done, std::size_t total, const std::string& text,
                    std::size_t columns) {
    constexpr std::size_t kBrackets = 3;  // including a blank
    if (text.size() + kBrackets + kNarrowestBar > columns) { return text.substr(0, columns); }
    const std::size_t width = std::min(kWidestBar, columns - text.size() - kBrackets);
    const std::size_t filled = done * width / total;
    return fmt::format("[{:#<{}}{:{}}] {}", "", filled, "", width - filled, text);
}

// "45 s", "3 min".
std::string RoughTime(double seconds) {
    constexpr double kMostSeconds = 120;
    return seconds < kMostSeconds ? fmt::format("{:.0f} s", seconds)
                                  : fmt::format("{:.0f} min", seconds / 60);
}

}  // namespace

Progress::Progress(std::ostream& out, ProgressStyle style, std::size_t total, std::size_t width,
                   Clock clock)
    : out_(out), style_(style), total_(total), width_(width), clock_(std::move(clock)) {
    if (!clock_) {
        clock_ = [watch = Stopwatch()] { return watch.Elapsed(); };
    }
}

Progress::~Progress() {
    if (lineIsOpen_) { out_ << std::endl; }
}

void Progress::Advance(bool compiled) {
    Show(done_ + 1, compiled_ + (compiled ? 1 : 0));
}

void Progress::Show(std::size_t done, std::size_t compiled) {
    const std::size_t doneBefore = std::exchange(done_, done);
    compiled_ = compiled;
    if (style_ == ProgressStyle::Bar && IsTimeToDraw()) {
        DrawBar();
    } else if (style_ == ProgressStyle::Lines) {
        PrintLine(doneBefore);
    } else if (style_ == ProgressStyle::Reports && IsTimeToDraw()) {
        PrintReport();
    }
}

bool Progress::IsTimeToDraw() {
    const auto now = std::chrono::steady_clock::now();
    if (done_ < total_ && now - lastDrawn_ < kRedrawInterval) { return false; }
    lastDrawn_ = now;
    return true;
}

// Leaves the last column free: some terminals move to the next line when it is filled.
void Progress::DrawBar() {
    const std::string text = fmt::format("{}/{}, {} compiled{}", done_, total_, compiled_, Rate());
    lineIsOpen_ = done_ < total_;
    out_ << fmt::format("\r{}{}", BarText(done_, total_, text, width_ - 1), lineIsOpen_ ? "" : "\n")
         << std::flush;
}

void Progress::PrintLine(std::size_t doneBefore) {
    if (done_ * kLines / total_ != doneBefore * kLines / total_) {
        out_ << fmt::format("{} of {} effects, {} compiled{}\n", done_, total_, compiled_, Rate())
             << std::flush;
    }
}

// ", 98 a second, 5 s left". Empty in the first second, which says little about the rate.
std::string Progress::Rate() const {
    const double seconds = std::chrono::duration<double>(clock_()).count();
    if (seconds < 1 || done_ == 0) { return {}; }
    const double rate = static_cast<double>(done_) / seconds;
    const std::string text = fmt::format(", {:.{}f} a second", rate, rate < 10 ? 1 : 0);
    if (done_ >= total_) { return text; }
    return text + fmt::format(", {} left", RoughTime(static_cast<double>(total_ - done_) / rate));
}

void Progress::PrintReport() {
    out_ << fmt::format("{} {} {}\n", kReport, done_, compiled_) << std::flush;
}

std::optional<ProgressReport> ParseProgressReport(const std::string& line) {
    std::istringstream words(line);
    std::string first;
    ProgressReport report;
    if (!(words >> first >> report.done >> report.compiled) || first != kReport) {
        return std::nullopt;
    }
    return report;
}

}  // namespace EffectHost
