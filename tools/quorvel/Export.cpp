#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "format/Path.h"
#include "tools/quorvel/Archive.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/OutputFile.h"
#include "tools/quorvel/Progress.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace fs = std::filesystem;

namespace {

struct ExportOptions {
    std::string cache;
    std::string archive;
    std::string match = "*";
};

Compression CompressionOf(const std::string& archive) {
    constexpr std::pair<std::string_view, Compression> kEndings[] = {
        {".tar", Compression::None},  {".tar.gz", Compression::Gzip},
        {".tgz", Compression::Gzip},  {".tar.zst", Compression::Zstd},
        {".tzst", Compression::Zstd},
    };
    for (const auto& [ending, compression] : kEndings) {
        if (archive.ends_with(ending)) { return compression; }
    }
    std::error_code ignored;
    const fs::file_status status = fs::status(Format::ToPath(archive), ignored);
    if (fs::exists(status) && !fs::is_regular_file(status)) { return Compression::None; }
    throw Failure(archive + ": the name of an archive ends in .tar, .tar.gz or .tar.zst", kUsage);
}

struct Exported {
    std::uint64_t effects = 0;
    std::uint64_t bytes = 0;
    std::vector<std::string> damaged;
};

Exported WriteArchive(const ExportOptions& options, Cache& cache, std::ostream& out,
                      Compression compression, Session& session) {
    const std::string name = options.archive == "-" ? "standard output" : options.archive;
    ArchiveWriter archive(out, name, compression);
    std::error_code ignored;
    Progress progress(session, "exporting", fs::file_size(Format::ToPath(cache.Path()), ignored));
    Exported result;
    ForEachEffect(
        cache, [&](const auto& effect) { return Matches(options.match, effect.name); },
        [&](const EffectBytes& effect) {
            archive.Add(effect);
            ++result.effects;
            result.bytes += effect.data.size();
            progress.Add(effect.data.size());
        },
        [&](const Format::IndexEntry& effect, const std::string& why) {
            TellDamage(session, cache, effect.name, why);
            result.damaged.push_back(effect.name);
        });
    if (result.effects == 0 && result.damaged.empty() && options.match != "*") {
        throw NoMatch(cache.Name(), options.match);
    }
    archive.Finish();
    return result;
}

void Export(const ExportOptions& options, Session& session) {
    const bool isPipe = options.archive == "-";
    if (isPipe && session.json) {
        throw Failure("standard output can't have both the archive and JSON", kUsage);
    }
    const Compression compression = isPipe ? Compression::None : CompressionOf(options.archive);
    Cache cache(session, options.cache);
    Exported result;
    if (isPipe) {
        result = WriteArchive(options, cache, session.out, compression, session);
    } else {
        OutputFile file(options.archive, cache);
        result = WriteArchive(options, cache, file.Stream(), compression, session);
        file.Finish();
    }
    session.Report(
        fmt::format("exported {}, {}", Count(result.effects, "effect"), Size(result.bytes)),
        {{"archive", options.archive},
         {"effects", result.effects},
         {"bytes", result.bytes},
         {"damaged", EscapeAll(result.damaged)}});
    if (!result.damaged.empty()) { session.exitCode = kNo; }
}

}  // namespace

void AddExport(CLI::App& program, Session& session) {
    const auto options = std::make_shared<ExportOptions>();
    Command command = AddCommand(program, session, "export", "Writes effects into an archive (tar)",
                                 [options, &session] { Export(*options, session); });
    command.AddReading();
    command.AddJson();
    command.AddCache(options->cache);
    command
        .AddOption("ARCHIVE", options->archive,
                   "the archive to write: a name that ends in .tar, .tar.gz or .tar.zst, or - "
                   "for standard output (.tar)")
        .Required();
    command
        .AddOption("--match", options->match, "only effects whose names match this shell pattern")
        .ShowDefault();
}

}  // namespace Quorvel::Tool
