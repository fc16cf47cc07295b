#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

struct ListOptions {
    std::string cache;
    std::string match = "*";
    std::string sort = "name";
    bool reverse = false;
    std::optional<std::uint64_t> limit;
    bool isLong = false;
    bool endsInNull = false;
};

using Effects = std::vector<const Format::IndexEntry*>;

std::unique_ptr<Snapshot> Read(const ListOptions& options, Session& session) {
    Cache cache(session, options.cache);
    const Cache::Lock lock(cache);
    return ReadCache(cache, lock);
}

// The effects that were asked for, in the order that was asked for.
Effects Select(const ListOptions& options, const Snapshot& snapshot) {
    Effects effects;
    for (const Format::IndexEntry& effect : snapshot.Effects()) {
        if (Matches(options.match, effect.name)) { effects.push_back(&effect); }
    }
    if (options.sort == "size") {
        std::stable_sort(effects.begin(), effects.end(), [](const auto* left, const auto* right) {
            return left->record.size < right->record.size;
        });
    } else if (options.sort == "time") {
        std::stable_sort(effects.begin(), effects.end(), [](const auto* left, const auto* right) {
            return IsEarlier(ToRecord(left->record.time), ToRecord(right->record.time));
        });
    }
    if (options.reverse) { std::reverse(effects.begin(), effects.end()); }
    if (options.limit && *options.limit < effects.size()) {
        effects.resize(static_cast<std::size_t>(*options.limit));
    }
    return effects;
}

// An array with an effect on each line. It is not built in memory: a cache may have 65,534 effects.
void PrintJson(const Effects& effects, Session& session) {
    const char* separator = "[\n";
    for (const auto* const entry : effects) {
        const auto& [name, record] = *entry;
        const Json effect = {{"name", Escape(name)},
                             {"size", record.size},
                             {"permanent", record.permanent != 0},
                             {"time", Time(record.time)}};
        session.out << separator << effect.dump();
        separator = ",\n";
    }
    session.out << (effects.empty() ? "[]\n" : "\n]\n");
}

void List(const ListOptions& options, Session& session) {
    const std::unique_ptr<Snapshot> snapshot = Read(options, session);
    const Effects effects = Select(options, *snapshot);
    if (effects.empty() && options.match != "*") {
        session.Warn(std::string("quorvel: ") + NoMatch(options.cache, options.match).what());
        session.exitCode = kNo;
    }
    if (session.json) { return PrintJson(effects, session); }
    for (const auto* const entry : effects) {
        const auto& [name, record] = *entry;
        if (options.isLong) {
            session.out << Time(record.time) << '\t' << record.size << '\t'
                        << (record.permanent != 0 ? "permanent" : "evictable") << '\t';
        }
        if (options.endsInNull) {
            session.out << name << '\0';
        } else {
            session.out << Escape(name) << '\n';
        }
    }
}

}  // namespace

void AddList(CLI::App& program, Session& session) {
    const auto options = std::make_shared<ListOptions>();
    Command command = AddCommand(program, session, "list", "Lists the effects of a cache",
                                 [options, &session] { List(*options, session); });
    command.AddReading();
    command.AddJson();
    command.AddCache(options->cache);
    command.AddOption("--match", options->match, "only names that match this shell pattern")
        .ShowDefault();
    command
        .AddOption("--sort", options->sort,
                   "order: by name (length, then bytes), size or time of use")
        .OneOf({"name", "size", "time"})
        .ShowDefault();
    command.AddFlag("-r,--reverse", options->reverse, "reverse the order");
    command.AddOption("-n,--limit", options->limit, "list at most this number of effects")
        .NonNegative();
    command.AddFlag(
        "-l,--long", options->isLong,
        "print time of use, bytes, and whether permanent, separated by tabs, before each name");
    command.AddFlag("-0", options->endsInNull,
                    "end each name with a null byte instead of a line break, and escape nothing");
}

}  // namespace Quorvel::Tool
