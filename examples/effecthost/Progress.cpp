#include "Progress.h"

#include <fmt/format.h>

#include <ostream>

namespace EffectHost {

namespace {

constexpr std::size_t kBarWidth = 40;
constexpr std::size_t kLines = 10;
constexpr std::chrono::milliseconds kRedrawInterval{50};

}  // namespace

Progress::Progress(std::ostream& out, ProgressStyle style, std::size_t total)
    : out_(out), style_(style), total_(total) {}

void Progress::Advance(bool compiled) {
    ++done_;
    compiled_ += compiled ? 1 : 0;
    if (style_ == ProgressStyle::Bar) {
        DrawBar();
    } else if (style_ == ProgressStyle::Lines) {
        PrintLine();
    }
}

void Progress::DrawBar() {
    const auto now = std::chrono::steady_clock::now();
    const bool last = done_ == total_;
    if (!last && now - lastDrawn_ < kRedrawInterval) {
        return;
    }
    lastDrawn_ = now;
    const std::size_t filled = done_ * kBarWidth / total_;
    out_ << fmt::format("\r[{:#<{}}{:{}}] {}/{}, {} compiled{}", "", filled, "", kBarWidth - filled,
                        done_, total_, compiled_, last ? "\n" : "")
         << std::flush;
}

void Progress::PrintLine() {
    if (done_ * kLines / total_ != (done_ - 1) * kLines / total_) {
        out_ << fmt::format("{} of {} effects, {} compiled\n", done_, total_, compiled_)
             << std::flush;
    }
}

}  // namespace EffectHost
