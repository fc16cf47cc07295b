#include <fmt/format.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "format/Path.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Incoming.h"
#include "tools/quorvel/Progress.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace fs = std::filesystem;

namespace {

struct MergeOptions {
    std::string dest;
    std::vector<std::string> sources;
    IncomingOptions incoming;
};

using Caches = std::vector<std::unique_ptr<Cache>>;

Caches OpenSources(const MergeOptions& options, const Cache& dest, const Session& session) {
    Caches sources;
    for (const std::string& argument : options.sources) {
        sources.push_back(std::make_unique<Cache>(session, argument));
        std::error_code ignored;
        if (fs::equivalent(Format::ToPath(dest.Path()), Format::ToPath(sources.back()->Path()),
                           ignored)) {
            throw Failure(fmt::format("{} and {} are the same cache", dest.Name(), argument),
                          kUsage);
        }
    }
    return sources;
}

// Reads the effects of the sources. Of two effects of one name, keeps the one used last. Returns
// the number of damaged ones.
std::uint64_t Collect(const Caches& sources, const std::string& match, Incoming& incoming,
                      Session& session) {
    std::uint64_t bytes = 0;
    for (const auto& source : sources) {
        std::error_code ignored;
        bytes += fs::file_size(Format::ToPath(source->Path()), ignored);
    }
    Progress progress(session, "reading", bytes);
    std::uint64_t damaged = 0;
    for (const auto& source : sources) {
        ForEachEffect(
            *source,
            [&](const Format::IndexEntry& effect) {
                return Matches(match, effect.name) &&
                       incoming.Wants(effect.name, effect.record.time);
            },
            [&](const EffectBytes& effect) {
                const auto& [name, record] = effect.entry;
                incoming.Add(name, {record.time, record.permanent != 0, record.size,
                                    incoming.Keep(effect.data)});
                progress.Add(record.size);
            },
            [&](const Format::IndexEntry& effect, const std::string& why) {
                TellDamage(session, *source, effect.name, why);
                ++damaged;
            });
    }
    return damaged;
}

void Merge(const MergeOptions& options, Session& session) {
    Cache dest(session, options.dest);
    const Caches sources = OpenSources(options, dest, session);
    Incoming incoming(options.incoming.isDryRun);
    const std::uint64_t damaged = Collect(sources, options.incoming.match, incoming, session);
    if (incoming.All().empty() && damaged == 0 && options.incoming.match != "*") {
        throw NoMatch(fmt::format("{}", fmt::join(options.sources, ", ")), options.incoming.match);
    }
    const IncomingResult result = TakeIn(incoming, dest, options.incoming, session);
    ReportResult(session, result, options.incoming, damaged);
    if (damaged > 0) { session.exitCode = kNo; }
}

}  // namespace

void AddMerge(CLI::App& program, Session& session) {
    const auto options = std::make_shared<MergeOptions>();
    Command command = AddCommand(
        program, session, "merge",
        "Takes effects from other caches, all or none; makes the cache if the directory has none",
        [options, &session] { Merge(*options, session); });
    command.AddChanging();
    command.AddJson();
    command.AddOption("DEST", options->dest, "the cache that takes the effects").Required();
    command.AddOption("SOURCE", options->sources, "cache directories or package files to read")
        .Required();
    options->incoming.AddTo(command, "sources");
}

}  // namespace Quorvel::Tool
