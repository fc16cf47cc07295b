#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/EffectRecord.h"
#include "format/Path.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

struct PutOptions {
    std::string cache;
    std::string name;
    std::string file;
    bool permanent = false;
};

// The bytes to store. If the input is too long, reads only one byte more than an effect may have.
Format::Bytes ReadInput(const PutOptions& options, Session& session) {
    errno = 0;
    std::ifstream file;
    if (options.file != "-") {
        file.open(Format::ToPath(options.file), std::ios::binary);
        if (!file) {
            const int error = errno;
            throw Failure(fmt::format("{}: can't be read: {}", options.file, std::strerror(error)),
                          error == ENOENT ? kNo : kFailed);
        }
    }
    std::istream& in = options.file == "-" ? session.in : file;
    Format::Bytes data(kLargestEffect + 1);
    in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(data.size()));
    StopIfAsked();
    if (in.bad()) {
        throw Failure(fmt::format("{}: can't be read: {}", options.file,
                                  errno != 0 ? std::strerror(errno) : "read error"));
    }
    data.resize(static_cast<std::size_t>(in.gcount()));
    return data;
}

void Put(const PutOptions& options, Session& session) {
    const Format::Bytes data = ReadInput(options, session);
    if (data.size() < kSmallestEffect || data.size() > kLargestEffect) {
        throw Failure(fmt::format("{}: {}; an effect has 1 byte to 1 MiB", options.file,
                                  data.empty() ? "empty" : "too large"));
    }
    const std::string name = session.ReadName(options.name);
    if (name.size() < kShortestName || name.size() > kLongestName) {
        throw Failure(fmt::format("the name has {}; a name has 1 to {}", Count(name.size(), "byte"),
                                  kLongestName),
                      kUsage);
    }
    Cache cache(session, options.cache);
    std::vector<std::string> evicted;
    {
        const Cache::Lock lock(cache);
        CacheEditor editor(cache, lock, CacheEditor::Missing::Create);
        bool isPermanent = options.permanent;
        if (IndexEntry* const replaced = editor.Find(name)) {
            isPermanent = isPermanent || replaced->record.permanent != 0;
            editor.Remove(replaced);
        }
        evicted = editor.MakeRoom(CacheEditor::EffectSize(name.size(), data.size()));
        editor.Store(name, data, isPermanent, Now());
        editor.Commit();
    }
    std::string line = fmt::format("stored {} as \"{}\"", Count(data.size(), "byte"), Escape(name));
    if (!evicted.empty()) {
        line += fmt::format("; for lack of room, evicted {}", Count(evicted.size(), "effect"));
    }
    session.Report(
        line, {{"stored", Escape(name)}, {"size", data.size()}, {"evicted", EscapeAll(evicted)}});
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
    command.AddEscaped();
    command.AddFlag(
        "--permanent", options->permanent,
        "never evict the effect; one that replaces a permanent effect is permanent, too");
}

}  // namespace Quorvel::Tool
