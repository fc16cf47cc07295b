#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/Terminal.h"
#include "tools/quorvel/Text.h"
#include "tools/quorvel/WatchView.h"
#include "tools/quorvel/Watcher.h"

namespace Quorvel::Tool {
namespace {

using Clock = WatchView::Clock;

struct WatchOptions {
    std::string cache;
    double interval = 1;
    std::optional<std::uint64_t> count;
};

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
