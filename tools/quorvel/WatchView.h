#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "format/EffectCacheImage.h"

namespace Quorvel::Tool {

// What is in a cache.
struct WatchState {
    std::uint64_t effects = 0;
    std::uint64_t bytes = 0;  // of the effects
    std::uint64_t fileSize = 0;
};

// What has changed in a cache since the last update. The first update only describes its state.
struct WatchUpdate {
    Format::EntryTime time;
    std::string problem;  // why the effects can't be read now; empty if they can
    bool isFirst = false;
    WatchState state;
    std::vector<std::string> added;  // names
    std::vector<std::string> replaced;
    std::vector<std::string> removed;
    std::vector<std::string> used;  // they have a new time
};

// "12 added, 3 replaced, 1 removed, 5 used", or "the same effects"; "watching" for the first
// update; or the problem.
std::string Summary(const WatchUpdate& update);

// The view of a cache in a terminal: its state now, and its last changes.
class WatchView {
public:
    using Clock = std::chrono::steady_clock;

    explicit WatchView(std::string path) : path_(std::move(path)) {}

    void Add(const WatchUpdate& update, Clock::time_point now);

    // The number of saves that were seen in the minute before `now`.
    std::size_t SavesInLastMinute(Clock::time_point now) const;

    // At most `lines` lines, none wider than `columns` columns.
    std::vector<std::string> Lines(const Format::EntryTime& time, Clock::time_point now,
                                   std::size_t columns, std::size_t lines) const;

private:
    const std::string path_;  // escaped
    WatchState state_;        // the last one that could be read
    std::string problem_;
    std::deque<Clock::time_point> saves_;
    std::deque<std::string> history_;  // lines, the newest first
};

// The most columns that a text can take in a terminal: characters other than ASCII count as two.
std::size_t Width(const std::string& text);

}  // namespace Quorvel::Tool
