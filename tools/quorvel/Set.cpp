#include <memory>
#include <string>
#include <vector>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Selection.h"

namespace Quorvel::Tool {
namespace {

struct SetOptions {
    std::string cache;
    Selection selection;
    bool permanent = false;
    bool evictable = false;
    bool isDryRun = false;
};

void Set(const SetOptions& options, Session& session) {
    options.selection.Check();
    if (options.permanent == options.evictable) {
        throw Failure("give either --permanent or --evictable", kUsage);
    }
    Cache cache(session, options.cache);
    std::vector<std::string> changed;
    {
        const Cache::Lock lock(cache);
        CacheEditor editor(cache, lock, CacheEditor::Missing::Refuse);
        for (const std::string& name : options.selection.Find(editor, cache, session)) {
            StopIfAsked();
            IndexEntry* const entry = editor.Find(name);
            if ((entry->record.permanent != 0) == options.permanent) { continue; }
            if (!options.isDryRun) { editor.SetPermanent(entry, options.permanent); }
            changed.push_back(name);
        }
        editor.Commit();
    }
    ReportNames(session, options.permanent ? "made permanent" : "made evictable", changed,
                options.isDryRun);
}

}  // namespace

void AddSet(CLI::App& program, Session& session) {
    const auto options = std::make_shared<SetOptions>();
    Command command =
        AddCommand(program, session, "set", "Makes effects permanent, or lets the cache evict them",
                   [options, &session] { Set(*options, session); });
    command.AddChanging();
    command.AddJson();
    command.AddCache(options->cache);
    options->selection.AddTo(command);
    command.AddFlag("--permanent", options->permanent, "never evict the effects");
    command.AddFlag("--evictable", options->evictable, "evict them when there is no room");
    command.AddFlag("--dry-run", options->isDryRun, "say what would be changed, change nothing");
}

}  // namespace Quorvel::Tool
