#include <fmt/format.h>

#include <memory>
#include <string>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Compaction.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

void CompactCache(const std::string& argument, Session& session) {
    CompactionResult result;
    {
        Cache cache(session, argument);
        const Cache::Lock lock(cache);
        result = Compact(cache, lock, Keep::Everything, session);
    }
    if (result.damaged > 0) {
        session.exitCode = kNo;
        session.Warn(fmt::format("left out {} that could not be read",
                                 Count(result.damaged, "damaged effect")));
    }
    session.Report(
        fmt::format("{}: {}, {} before, {} now", argument, Count(result.effects, "effect"),
                    Size(result.sizeBefore), Size(result.sizeAfter)),
        {{"effects", result.effects},
         {"damaged", result.damaged},
         {"sizeBefore", result.sizeBefore},
         {"sizeAfter", result.sizeAfter}});
}

}  // namespace

void AddCompact(CLI::App& program, Session& session) {
    const auto cache = std::make_shared<std::string>();
    Command command =
        AddCommand(program, session, "compact", "Shrinks a cache's file to what its effects need",
                   [cache, &session] { CompactCache(*cache, session); });
    command.AddChanging();
    command.AddJson();
    command.AddCache(*cache);
}

}  // namespace Quorvel::Tool
