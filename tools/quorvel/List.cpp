#include <algorithm>
#include <cstdint>
#include <iterator>
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

// The effects that were asked for, in the order that was asked for.
std::vector<Format::IndexEntry> Select(const ListOptions& options, Session& session) {
    Cache cache(session, options.cache);
    std::vector<Format::IndexEntry> effects;
    {
        const Cache::Lock lock(cache);
        const std::unique_ptr<Snapshot> snapshot = ReadCache(cache, lock);
        std::copy_if(snapshot->Effects().begin(), snapshot->Effects().end(),
                     std::back_inserter(effects),
                     [&](const auto& effect) { return Matches(options.match, effect.name); });
    }
    if (options.sort == "size") {
        std::stable_sort(effects.begin(), effects.end(), [](const auto& left, const auto& right) {
            return left.record.size < right.record.size;
        });
    } else if (options.sort == "time") {
        std::stable_sort(effects.begin(), effects.end(), [](const auto& left, const auto& right) {
            return IsEarlier(ToRecord(left.record.time), ToRecord(right.record.time));
        });
    }
    if (options.reverse) { std::reverse(effects.begin(), effects.end()); }
    if (options.limit && *options.limit < effects.size()) {
        effects.resize(static_cast<std::size_t>(*options.limit));
    }
    return effects;
}

// An array with an effect on each line. It is not built in memory: a cache may have 65,534 effects.
void PrintJson(const std::vector<Format::IndexEntry>& effects, Session& session) {
    const char* separator = "[\n";
    for (const auto& [name, record] : effects) {
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
    const std::vector<Format::IndexEntry> effects = Select(options, session);
    if (effects.empty() && options.match != "*") {
        session.Tell(std::string("quorvel: ") + NoMatch(options.cache, options.match).what());
        session.exitCode = kNo;
    }
    if (session.json) { return PrintJson(effects, session); }
    for (const auto& [name, record] : effects) {
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
