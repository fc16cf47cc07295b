#include <fmt/format.h>

#include <memory>
#include <string>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Compaction.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

struct ClearOptions {
    std::string cache;
    bool isSure = false;
};

bool IsSure(const ClearOptions& options, Session& session) {
    if (options.isSure) { return true; }
    session.err << "remove all effects from " << EscapePath(options.cache) << "? [y/N] "
                << std::flush;
    std::string answer;
    std::getline(session.in, answer);
    StopIfAsked();
    if (answer.ends_with('\r')) { answer.pop_back(); }  // lines on Windows
    return answer == "y" || answer == "Y" || answer == "yes";
}

// A file whose name is not that of a cache may be anything.
bool IsCache(Cache& cache) {
    const Cache::Lock lock(cache);
    try {
        return cache.IsShared() ||
               Format::HoldsEffectCache(
                   ReadPackage(cache, lock, DamagedEffects::LeaveOut)->State().headerData);
    } catch (const Failure& failure) {
        if (failure.exitCode != kNo) { throw; }
        return false;
    }
}

void Clear(const ClearOptions& options, Session& session) {
    Cache cache(session, options.cache);
    if (!IsCache(cache)) {
        throw Failure(
            fmt::format("{}: not recognisable as an effect cache; nothing was changed. To empty a "
                        "damaged one, name its directory",
                        options.cache),
            kNo);
    }
    if (!IsSure(options, session)) {
        throw Failure("nothing was changed; answer y, or give --yes", kNo);
    }
    {
        const Cache::Lock lock(cache);
        Compact(cache, lock, Keep::Nothing, session);
    }
    session.Report(fmt::format("{}: now empty", options.cache), {{"cleared", options.cache}});
}

}  // namespace

void AddClear(CLI::App& program, Session& session) {
    const auto options = std::make_shared<ClearOptions>();
    Command command = AddCommand(program, session, "clear",
                                 "Empties a cache, even a damaged one, after a question",
                                 [options, &session] { Clear(*options, session); });
    command.AddChanging();
    command.AddJson();
    command.AddCache(options->cache);
    command.AddFlag("-y,--yes", options->isSure, "don't ask");
}

}  // namespace Quorvel::Tool
