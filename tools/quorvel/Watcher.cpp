#include "tools/quorvel/Watcher.h"

#include <memory>
#include <utility>

#include "format/Path.h"
#include "tools/quorvel/Terminal.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace fs = std::filesystem;

namespace {

// The cache is locked for at most one part in this number of the time, so that hosts seldom wait.
constexpr int kShareOfTime = 10;

}  // namespace

Watcher::Mark Watcher::Look() const {
    std::error_code ignored;
    const fs::path path = Format::ToPath(cache_.Path());
    return {fs::file_size(path, ignored), fs::last_write_time(path, ignored)};
}

WatchUpdate Watcher::First() {
    WatchUpdate update = Read();
    update.isFirst = true;
    update.added.clear();
    return update;
}

std::optional<WatchUpdate> Watcher::Next() {
    if (cache_.HasChanged() || Look() != mark_) { mustRead_ = true; }
    if (!mustRead_ || Clock::now() < nextRead_) { return std::nullopt; }
    try {
        WatchUpdate update = Read();
        problem_.clear();
        return update;
    } catch (const Failure& failure) {
        if (IsStopRequested() || failure.what() == problem_) { return std::nullopt; }
        problem_ = failure.what();
        WatchUpdate update;
        update.time = Now();
        update.problem = problem_;
        return update;
    }
}

WatchUpdate Watcher::Read() {
    std::unique_ptr<Snapshot> snapshot;
    {
        const Cache::Lock lock(cache_);
        const Clock::time_point start = Clock::now();
        mark_ = Look();
        snapshot = ReadCache(cache_, lock);
        mustRead_ = false;
        nextRead_ = Clock::now() + kShareOfTime * (Clock::now() - start);
    }
    WatchUpdate update;
    update.time = Now();
    update.state.fileSize = snapshot->File().Size();
    Compare(snapshot->Effects(), update);
    return update;
}

void Watcher::Compare(const std::vector<Format::IndexEntry>& effects, WatchUpdate& update) {
    std::vector<Effect> now;
    now.reserve(effects.size());
    auto old = effects_.begin();
    const auto isBefore = [](const std::string& left, const std::string& right) {
        return Format::NameOrder()(left, right);
    };
    for (const auto& [name, record] : effects) {
        update.state.bytes += record.size;
        for (; old != effects_.end() && isBefore(old->name, name); ++old) {
            update.removed.push_back(old->name);
        }
        if (old == effects_.end() || old->name != name) {
            update.added.push_back(name);
        } else {
            // Compacting gives an effect another stream; a search gives it another time.
            const bool isMoved = old->record.streamId != record.streamId;
            const bool hasNewTime = Time(old->record.time) != Time(record.time);
            if (old->record.size != record.size || (isMoved && hasNewTime)) {
                update.replaced.push_back(name);
            } else if (hasNewTime) {
                update.used.push_back(name);
            }
            ++old;
        }
        now.push_back({name, record});
    }
    for (; old != effects_.end(); ++old) {
        update.removed.push_back(old->name);
    }
    update.state.effects = effects.size();
    effects_ = std::move(now);
}

}  // namespace Quorvel::Tool
