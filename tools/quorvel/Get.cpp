#include <fmt/format.h>

#include <fstream>
#include <memory>
#include <string>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/OutputFile.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

struct GetOptions {
    std::string cache;
    std::string name;
    std::string output;
};

Format::Bytes ReadEffect(const std::string& name, Cache& cache) {
    const Cache::Lock lock(cache);
    const std::unique_ptr<Snapshot> snapshot = ReadCache(cache, lock);
    const Format::IndexEntry* const effect = snapshot->Find(name);
    if (!effect) {
        throw Failure(
            fmt::format("{}: no effect is called \"{}\"; \"quorvel list\" shows the names",
                        cache.Name(), Escape(name)),
            kNo);
    }
    try {
        return snapshot->Read(*effect);
    } catch (const Format::FormatError& error) {
        throw Failure(
            fmt::format("{}: \"{}\" is damaged: {}", cache.Path(), Escape(name), error.what()),
            kNo);
    }
}

void Write(const Format::Bytes& bytes, std::ostream& out) {
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

void Get(const GetOptions& options, Session& session) {
    Cache cache(session, options.cache);
    const Format::Bytes bytes = ReadEffect(session.ReadName(options.name), cache);
    if (options.output.empty() || options.output == "-") {
        Write(bytes, session.out);
    } else {
        OutputFile file(options.output, cache);
        Write(bytes, file.Stream());
        file.Finish();
    }
}

}  // namespace

void AddGet(CLI::App& program, Session& session) {
    const auto options = std::make_shared<GetOptions>();
    Command command = AddCommand(program, session, "get", "Writes the bytes of an effect",
                                 [options, &session] { Get(*options, session); });
    command.AddReading();
    command.AddCache(options->cache);
    command.AddOption("NAME", options->name, "the effect's name").Required();
    command.AddEscaped();
    command.AddOption("-o,--output", options->output,
                      "the file to write; standard output if it is left out");
}

}  // namespace Quorvel::Tool
