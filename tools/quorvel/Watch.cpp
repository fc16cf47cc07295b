#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "format/Path.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/Terminal.h"
#include "tools/quorvel/Text.h"
#include "tools/quorvel/WatchView.h"

namespace Quorvel::Tool {
namespace {

namespace fs = std::filesystem;
using Clock = WatchView::Clock;

// The cache is locked for at most one part in this number of the time, so that hosts seldom wait.
constexpr int kShareOfTime = 10;

struct WatchOptions {
    std::string cache;
    double interval = 1;
    std::optional<std::uint64_t> count;
};

// Looks for changes of a cache.
class Watcher {
public:
    Watcher(const Session& session, const std::string& cache) : cache_(session, cache) {}

    const std::string& Path() const { return cache_.Path(); }

    // The present state of the cache. Throws Failure if the effects can't be read.
    WatchUpdate First();

    // What has changed since the last update, if anything has. Takes the lock only if the file has
    // changed, and not too often.
    std::optional<WatchUpdate> Next();

private:
    // Shows that the file has changed even if the change was not announced.
    struct Mark {
        std::uint64_t size = 0;
        fs::file_time_type time;
        bool operator==(const Mark&) const = default;
    };

    struct Effect {
        std::string name;
        Format::EffectRecord record;
    };

    Mark Look() const;
    WatchUpdate Read();
    void Compare(const std::vector<Format::IndexEntry>& effects, WatchUpdate& update);

    Cache cache_;
    Mark mark_;
    bool mustRead_ = true;
    Clock::time_point nextRead_;
    std::string problem_;
    std::vector<Effect> effects_;  // ordered by name
};

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

// ---- Showing ------------------------------------------------------------------------------------

Json ToJson(const WatchUpdate& update, std::size_t saves) {
    Json json = {{"time", Time(update.time)}};
    if (!update.problem.empty()) {
        json["problem"] = EscapePath(update.problem);
        return json;
    }
    json["effects"] = update.state.effects;
    json["bytes"] = update.state.bytes;
    json["fileSize"] = update.state.fileSize;
    json["savesInLastMinute"] = saves;
    json["added"] = EscapeAll(update.added);
    json["replaced"] = EscapeAll(update.replaced);
    json["removed"] = EscapeAll(update.removed);
    json["used"] = EscapeAll(update.used);
    return json;
}

// Prints updates as lines, or keeps a view of the cache in a terminal up to date.
class Output {
public:
    Output(const Session& session, const std::string& path)
        : session_(session),
          isView_(session.isOutTerminal && !session.json),
          view_(EscapePath(path)) {}

    void Add(const WatchUpdate& update) {
        const Clock::time_point now = Clock::now();
        view_.Add(update, now);
        if (session_.json) {
            session_.out << ToJson(update, view_.SavesInLastMinute(now))
                                .dump(-1, ' ', false, Json::error_handler_t::replace)
                         << std::endl;
        } else if (!isView_) {
            session_.out << Time(update.time) << "  ";
            if (update.problem.empty()) {
                session_.out << fmt::format("{}, {}: ", Count(update.state.effects, "effect"),
                                            Size(update.state.bytes));
            }
            session_.out << Summary(update) << std::endl;
        }
    }

    // Draws the view over the previous one and leaves the lines above it alone.
    void Refresh() {
        if (!isView_) { return; }
        const TerminalSize size = OutputSize();
        // A terminal that has become narrower has wrapped the lines that no longer fit.
        std::size_t above = 0;
        for (const std::size_t width : widths_) {
            above += std::max<std::size_t>(1, (width + size.columns - 1) / size.columns);
        }
        if (above > 0) { session_.out << "\x1B[" << above << 'A'; }
        session_.out << "\r\x1B[J";
        widths_.clear();
        for (const std::string& line :
             view_.Lines(Now(), Clock::now(), size.columns - 1, size.lines - 1)) {
            session_.out << line << '\n';
            widths_.push_back(Width(line));
        }
        session_.out.flush();
    }

private:
    const Session& session_;
    const bool isView_;
    WatchView view_;
    std::vector<std::size_t> widths_;  // of the lines that were drawn
};

// Waits for that time, or until the user asks the program to stop.
void Sleep(Clock::duration duration) {
    const Clock::time_point end = Clock::now() + duration;
    while (!IsStopRequested() && Clock::now() < end) {
        std::this_thread::sleep_for(
            std::min<Clock::duration>(end - Clock::now(), std::chrono::milliseconds(50)));
    }
}

void Watch(const WatchOptions& options, Session& session) {
    if (std::isnan(options.interval)) { throw Failure("--interval is no number", kUsage); }
    Watcher watcher(session, options.cache);
    Output output(session, watcher.Path());
    const auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(options.interval));
    std::optional<WatchUpdate> update = watcher.First();
    for (std::uint64_t updates = 0; session.out;) {
        if (update) {
            output.Add(*update);
            ++updates;
        }
        output.Refresh();
        if (options.count && updates >= *options.count) { return; }
        Sleep(interval);
        if (IsStopRequested()) { return; }
        update = watcher.Next();
    }
}

}  // namespace

void AddWatch(CLI::App& program, Session& session) {
    const auto options = std::make_shared<WatchOptions>();
    Command command = AddCommand(
        program, session, "watch",
        "Shows how a cache changes, until Ctrl-C: a view in a terminal, otherwise a line for each "
        "change",
        [options, &session] { Watch(*options, session); });
    command.AddReading();
    command.AddJson();
    command.AddCache(options->cache);
    command.AddOption("--interval", options->interval, "seconds between two looks")
        .Between(0.01, 86400.0)
        .ShowDefault();
    command
        .AddOption("--count", options->count,
                   "end after this number of updates; the first one is how the cache is now")
        .Positive();
}

}  // namespace Quorvel::Tool
