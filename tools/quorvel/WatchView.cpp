#include "tools/quorvel/WatchView.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "effectcache/EffectRecord.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

constexpr std::size_t kNamesOfOneUpdate = 8;
constexpr std::size_t kHistoryLines = 200;

bool ContinuesCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// For the first byte of a character, the most columns that the character can take; 0 for its other
// bytes.
std::size_t WidthOf(char byte) {
    return ContinuesCharacter(byte) ? 0 : static_cast<unsigned char>(byte) < 0x80 ? 1 : 2;
}

// Ends a text that is too wide with "...".
std::string Fit(const std::string& text, std::size_t columns) {
    if (Width(text) <= columns) { return text; }
    const std::string end(std::min<std::size_t>(columns, 3), '.');
    std::size_t width = end.size();
    std::size_t size = 0;
    while (width + WidthOf(text[size]) <= columns) {
        width += WidthOf(text[size++]);
    }
    while (ContinuesCharacter(text[size])) {
        --size;
    }
    return text.substr(0, size) + end;
}

// "13:05:07"
std::string Hour(const Format::EntryTime& time) {
    return Time(time).substr(11, 8);
}

}  // namespace

std::size_t Width(const std::string& text) {
    std::size_t width = 0;
    for (const char byte : text) {
        width += WidthOf(byte);
    }
    return width;
}

std::string Summary(const WatchUpdate& update) {
    if (!update.problem.empty()) { return EscapePath(update.problem); }
    if (update.isFirst) { return "watching"; }
    std::string text;
    for (const auto& [names, done] :
         {std::pair(&update.added, "added"), std::pair(&update.replaced, "replaced"),
          std::pair(&update.removed, "removed"), std::pair(&update.used, "used")}) {
        if (names->empty()) { continue; }
        text += fmt::format("{}{} {}", text.empty() ? "" : ", ", names->size(), done);
    }
    return text.empty() ? "the same effects" : text;
}

void WatchView::Add(const WatchUpdate& update, Clock::time_point now) {
    problem_ = EscapePath(update.problem);
    if (problem_.empty()) {
        state_ = update.state;
        if (!update.isFirst) { saves_.push_back(now); }
    }
    while (saves_.size() > 1 && now - saves_.front() >= std::chrono::minutes(1)) {
        saves_.pop_front();
    }
    std::vector<std::string> lines = {Hour(update.time) + "  " + Summary(update)};
    std::size_t left = update.added.size() + update.replaced.size() + update.removed.size();
    for (const auto& [names, sign] :
         {std::pair(&update.added, '+'), std::pair(&update.replaced, '~'),
          std::pair(&update.removed, '-')}) {
        for (const std::string& name : *names) {
            if (lines.size() > kNamesOfOneUpdate) { break; }
            lines.push_back(fmt::format("          {} {}", sign, Escape(name)));
            --left;
        }
    }
    if (left > 0) { lines.push_back(fmt::format("            and {} more", left)); }
    history_.insert(history_.begin(), lines.begin(), lines.end());
    if (history_.size() > kHistoryLines) { history_.resize(kHistoryLines); }
}

std::size_t WatchView::SavesInLastMinute(Clock::time_point now) const {
    return static_cast<std::size_t>(std::count_if(saves_.begin(), saves_.end(), [&](auto save) {
        return now - save < std::chrono::minutes(1);
    }));
}

std::vector<std::string> WatchView::Lines(const Format::EntryTime& time, Clock::time_point now,
                                          std::size_t columns, std::size_t lines) const {
    std::string saves = fmt::format("{} in the last minute", SavesInLastMinute(now));
    if (!saves_.empty()) {
        const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - saves_.back());
        saves +=
            fmt::format(", the last one {} ago", Duration(static_cast<std::uint64_t>(age.count())));
    }
    std::vector<std::string> result = {
        fmt::format("{}  {}", Hour(time), path_),
        "",
        fmt::format("effects  {} of {}", state_.effects, kStreamLimit - 1),
        fmt::format("bytes    {} in a file of {}", Size(state_.bytes), Size(state_.fileSize)),
        fmt::format("saves    {}", saves),
        problem_,
    };
    result.insert(result.end(), history_.begin(), history_.end());
    if (result.size() > lines) { result.resize(lines); }
    for (std::string& line : result) {
        line = Fit(line, columns);
    }
    return result;
}

}  // namespace Quorvel::Tool
