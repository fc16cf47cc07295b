#include <fmt/format.h>

#include <memory>
#include <ostream>
#include <string>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/OutputFile.h"
#include "tools/quorvel/Report.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

struct MapOptions {
    std::string cache;
    std::string output;
    bool svg = false;
};

std::unique_ptr<Snapshot> Read(Cache& cache) {
    const Cache::Lock lock(cache);
    return ReadPackage(cache, lock, DamagedEffects::LeaveOut);
}

void Write(const MapOptions& options, const Snapshot& snapshot, const std::string& path,
           std::ostream& out) {
    options.svg ? WritePicture(snapshot, out) : WriteReport(snapshot, path, out);
}

void Map(const MapOptions& options, Session& session) {
    Cache cache(session, options.cache);
    const std::unique_ptr<Snapshot> snapshot = Read(cache);
    if (options.output.empty() || options.output == "-") {
        Write(options, *snapshot, cache.Path(), session.out);
    } else {
        OutputFile file(options.output, cache);
        Write(options, *snapshot, cache.Path(), file.Stream());
        file.Finish();
    }
    if (snapshot->Damage().empty()) { return; }
    session.Warn(
        fmt::format("quorvel: {}: damaged: {}; the report shows streams instead of effects",
                    cache.Path(), snapshot->Damage()));
    session.exitCode = kNo;
}

}  // namespace

void AddMap(CLI::App& program, Session& session) {
    const auto options = std::make_shared<MapOptions>();
    Command command = AddCommand(program, session, "map",
                                 "Makes a web page about a cache or a package: figures, a picture "
                                 "of the file page by page, a table of the effects",
                                 [options, &session] { Map(*options, session); });
    command.AddReading();
    command.AddCache(options->cache);
    command.AddOption("-o,--output", options->output,
                      "the file to write; standard output if it is left out");
    command.AddFlag("--svg", options->svg, "write the picture alone, as SVG");
}

}  // namespace Quorvel::Tool
