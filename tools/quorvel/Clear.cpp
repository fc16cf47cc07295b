#include <fmt/format.h>

#include <memory>
#include <string>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Compaction.h"

namespace Quorvel::Tool {
namespace {

struct ClearOptions {
    std::string cache;
    bool isSure = false;
};

bool IsSure(const ClearOptions& options, Session& session) {
    if (options.isSure) { return true; }
    session.err << "remove all effects from " << options.cache << "? [y/N] " << std::flush;
    std::string answer;
    std::getline(session.in, answer);
    if (answer.ends_with('\r')) { answer.pop_back(); }  // lines on Windows
    return answer == "y" || answer == "Y" || answer == "yes";
}

void Clear(const ClearOptions& options, Session& session) {
    Cache cache(session, options.cache);
    if (!IsSure(options, session)) {
        throw Failure("nothing was changed; answer y, or give --yes", kNo);
    }
    {
        const Cache::Lock lock(cache);
        Compact(cache, lock, Keep::Nothing);
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
