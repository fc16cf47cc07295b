#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "effectcache/EffectRecord.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

struct PruneOptions {
    std::string cache;
    std::optional<std::string> olderThan;
    std::optional<std::string> maxSize;
    std::optional<std::uint64_t> maxEffects;
    std::string match = "*";
    bool isDryRun = false;
};

// What is allowed to stay.
struct Limits {
    std::optional<std::uint64_t> age;
    std::uint64_t size = ~std::uint64_t{0};
    std::uint64_t effects = ~std::uint64_t{0};
};

Limits ReadLimits(const PruneOptions& options) {
    if (!options.olderThan && !options.maxSize && !options.maxEffects && options.match == "*") {
        throw Failure("say what may go: --older-than, --max-size, --max-effects or --match",
                      kUsage);
    }
    Limits limits;
    if (options.olderThan) { limits.age = ParseDuration(*options.olderThan); }
    if (options.maxSize) { limits.size = ParseSize(*options.maxSize); }
    limits.effects = options.maxEffects.value_or(limits.effects);
    // Without a limit, everything that matches goes.
    if (!limits.age && !options.maxSize && !options.maxEffects) { limits.age = 0; }
    return limits;
}

std::uint64_t SizeOf(const IndexEntry& effect) {
    return CacheEditor::EffectSize(effect.record.nameLength, effect.record.effectSize);
}

// The names of the effects that must go, the least recently used first.
std::vector<std::string> Choose(CacheEditor& editor, const PruneOptions& options,
                                const Limits& limits, bool& isWithinLimits) {
    std::uint64_t size = 0;
    std::uint64_t effects = 0;
    bool hasMatch = false;
    std::vector<const IndexEntry*> candidates;
    for (const IndexEntry* const effect : editor.Effects()) {
        size += SizeOf(*effect);
        ++effects;
        if (!Matches(options.match, NameOf(*effect))) { continue; }
        hasMatch = true;
        if (effect->record.permanent == 0) { candidates.push_back(effect); }
    }
    if (!hasMatch && options.match != "*") { throw NoMatch(options.cache, options.match); }
    std::stable_sort(candidates.begin(), candidates.end(), [](const auto* left, const auto* right) {
        return IsEarlier(left->record.entryTime, right->record.entryTime);
    });
    const std::optional<EntryTime> oldest =
        limits.age ? std::optional(ToRecord(TimeBefore(*limits.age))) : std::nullopt;
    std::vector<std::string> names;
    for (const IndexEntry* const effect : candidates) {
        const bool isOld =
            oldest && (*limits.age == 0 || IsEarlier(effect->record.entryTime, *oldest));
        if (!isOld && size <= limits.size && effects <= limits.effects) { break; }
        names.push_back(NameOf(*effect));
        size -= SizeOf(*effect);
        --effects;
    }
    isWithinLimits = size <= limits.size && effects <= limits.effects;
    return names;
}

void Prune(const PruneOptions& options, Session& session) {
    const Limits limits = ReadLimits(options);
    Cache cache(session, options.cache);
    std::vector<std::string> names;
    bool isWithinLimits = true;
    {
        const Cache::Lock lock(cache);
        CacheEditor editor(cache, lock, CacheEditor::Missing::Refuse);
        names = Choose(editor, options, limits, isWithinLimits);
        if (!options.isDryRun) { RemoveEffects(editor, names, session); }
    }
    ReportNames(session, "removed", names, options.isDryRun);
    if (!isWithinLimits) {
        session.Warn("the rest exceeds the limits, but is permanent or does not match");
        session.exitCode = kNo;
    }
}

}  // namespace

void AddPrune(CLI::App& program, Session& session) {
    const auto options = std::make_shared<PruneOptions>();
    Command command = AddCommand(
        program, session, "prune",
        "Removes the least recently used effects that are not permanent; \"compact\" then shrinks "
        "the file",
        [options, &session] { Prune(*options, session); });
    command.AddChanging();
    command.AddJson();
    command.AddCache(options->cache);
    command.AddOption("--older-than", options->olderThan,
                      "remove effects not used for this long: 30d, 12h, 45m, 2w");
    command.AddOption("--max-size", options->maxSize,
                      "remove effects until the rest takes no more than this: 100MiB");
    command
        .AddOption("--max-effects", options->maxEffects,
                   "remove effects until no more than this number is left")
        .NonNegative();
    command
        .AddOption("--match", options->match,
                   "remove only effects whose names match this shell pattern")
        .ShowDefault();
    command.AddFlag("--dry-run", options->isDryRun, "say what would be removed, change nothing");
}

}  // namespace Quorvel::Tool
