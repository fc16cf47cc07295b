#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <memory>
#include <string>

#include "effectcache/EffectRecord.h"
#include "format/Path.h"
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

// The bytes to store. Of a longer input, one byte more than an effect may have.
Format::Bytes ReadInput(const PutOptions& options, Session& session) {
    errno = 0;
    std::ifstream file;
    if (options.file != "-") {
        file.open(Format::ToPath(options.file), std::ios::binary);
        if (!file) {
            throw Failure(fmt::format("{}: can't be read: {}", options.file, std::strerror(errno)));
        }
    }
    std::istream& in = options.file == "-" ? session.in : file;
    Format::Bytes data(kLargestEffect + 1);
    in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(data.size()));
    if (in.bad()) { throw Failure(fmt::format("{}: can't be read", options.file)); }
    data.resize(static_cast<std::size_t>(in.gcount()));
    return data;
}

void Put(const PutOptions& options, Session& session) {
    const Format::Bytes data = ReadInput(options, session);
    if (data.size() < kSmallestEffect || data.size() > kLargestEffect) {
        throw Failure(fmt::format("{}: {}; an effect has 1 byte to 1 MiB", options.file,
                                  data.empty() ? "empty" : "too large"));
    }
    if (options.name.size() < kShortestName || options.name.size() > kLongestName) {
        throw Failure(fmt::format("the name has {}; a name has 1 to {}",
                                  Count(options.name.size(), "byte"), kLongestName),
                      kUsage);
    }
    Cache cache(session, options.cache);
    {
        const Cache::Lock lock(cache);
        CacheEditor editor(cache, lock, CacheEditor::Missing::Create);
        if (IndexEntry* const replaced = editor.Find(options.name)) { editor.Remove(replaced); }
        editor.MakeRoom(1, CacheEditor::EffectSize(options.name.size(), data.size()));
        editor.Store(options.name, data, options.permanent, Now());
        editor.Commit();
    }
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
