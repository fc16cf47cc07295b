#include "tools/quorvel/Progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Quorvel::Tool {

namespace {

constexpr std::chrono::milliseconds kBefore(500);
constexpr std::chrono::milliseconds kBetween(100);
constexpr std::uint64_t kBarWidth = 40;

}  // namespace

Progress::Progress(const Session& session, std::string label, std::uint64_t total)
    : session_(session),
      label_(std::move(label)),
      total_(std::max<std::uint64_t>(total, 1)),
      isOn_(session.isErrTerminal && !session.quiet && !session.json),
      next_(Clock::now() + kBefore) {}

Progress::~Progress() {
    if (isShown_) { session_.err << "\r\x1B[K" << std::flush; }
}

void Progress::Add(std::uint64_t parts) {
    StopIfAsked();
    done_ = std::min(total_, done_ + parts);
    if (isOn_ && Clock::now() >= next_) { Show(); }
}

void Progress::Show() {
    const std::uint64_t filled = done_ * kBarWidth / total_;
    session_.err << fmt::format("\r{} [{}{}] {:3} %", label_, std::string(filled, '#'),
                                std::string(kBarWidth - filled, '.'), done_ * 100 / total_)
                 << std::flush;
    next_ = Clock::now() + kBetween;
    isShown_ = true;
}

}  // namespace Quorvel::Tool
