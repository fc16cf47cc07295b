#include <memory>
#include <string>
#include <vector>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Selection.h"

namespace Quorvel::Tool {
namespace {

struct RemoveOptions {
    std::string cache;
    Selection selection;
    bool isDryRun = false;
};

void Remove(const RemoveOptions& options, Session& session) {
    options.selection.Check();
    Cache cache(session, options.cache);
    std::vector<std::string> names;
    {
        const Cache::Lock lock(cache);
        CacheEditor editor(cache, lock, CacheEditor::Missing::Refuse);
        names = options.selection.Find(editor, cache, session);
        if (!options.isDryRun) { RemoveEffects(editor, names, session); }
    }
    ReportNames(session, "removed", names, options.isDryRun);
}

}  // namespace

void AddRemove(CLI::App& program, Session& session) {
    const auto options = std::make_shared<RemoveOptions>();
    Command command = AddCommand(program, session, "remove", "Removes effects",
                                 [options, &session] { Remove(*options, session); });
    command.AddChanging();
    command.AddJson();
    command.AddCache(options->cache);
    options->selection.AddTo(command);
    command.AddFlag("--dry-run", options->isDryRun, "say what would be removed, change nothing");
}

}  // namespace Quorvel::Tool
