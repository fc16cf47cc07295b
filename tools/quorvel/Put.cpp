#include <fmt/format.h>

#include <iterator>
#include <memory>
#include <string>

#include "effectcache/EffectRecord.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

struct PutOptions {
    std::string cache;
    std::string name;
    std::string file;
    bool permanent = false;
};

Format::Bytes ReadInput(const PutOptions& options, Session& session) {
    if (options.file != "-") { return Format::ReadWholeFile(options.file); }
    return {std::istreambuf_iterator<char>(session.in), {}};
}

void Put(const PutOptions& options, Session& session) {
    const Format::Bytes data = ReadInput(options, session);
    if (data.size() < kSmallestEffect || data.size() > kLargestEffect) {
        throw Failure(fmt::format("{}: {}; an effect has 1 byte to 1 MiB", options.file,
                                  Count(data.size(), "byte")));
    }
    if (options.name.size() < kShortestName || options.name.size() > kLongestName) {
        throw Failure(fmt::format("the name has {}; a name has 1 to {}",
                                  Count(options.name.size(), "byte"), kLongestName),
                      kUsage);
    }
    Cache cache(session, options.cache);
    const Cache::Lock lock(cache);
    CacheEditor editor(cache, lock, CacheEditor::Missing::Create);
    if (IndexEntry* const replaced = editor.Find(options.name)) { editor.Remove(replaced); }
    editor.MakeRoom(1, CacheEditor::EffectSize(options.name.size(), data.size()));
    editor.Store(options.name, data, options.permanent, Now());
    editor.Commit();
    session.Report(
        fmt::format("stored {} as \"{}\"", Count(data.size(), "byte"), Escape(options.name)),
        {{"stored", Escape(options.name)}, {"size", data.size()}});
}

}  // namespace

void AddPut(CLI::App& program, Session& session) {
    const auto options = std::make_shared<PutOptions>();
    Command command = AddCommand(
        program, session, "put",
        "Stores an effect, replacing one of that name; makes the cache if the directory has none",
        [options, &session] { Put(*options, session); });
    command.AddChanging();
    command.AddJson();
    command.AddCache(options->cache);
    command.AddOption("NAME", options->name, "the effect's name").Required();
    command.AddOption("FILE", options->file, "its bytes; - for standard input").Required();
    command.AddFlag("--permanent", options->permanent, "never evict the effect");
}

}  // namespace Quorvel::Tool
