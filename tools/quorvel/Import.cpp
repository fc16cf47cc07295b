#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "format/Path.h"
#include "tools/quorvel/Archive.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Incoming.h"
#include "tools/quorvel/Progress.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

struct ImportOptions {
    std::string cache;
    std::string archive;
    IncomingOptions incoming;
};

std::uint64_t Read(const ImportOptions& options, Incoming& incoming, Session& session) {
    if (options.archive == "-") {
        return ReadArchive(session.in, "standard input", options.incoming.match, incoming,
                           [](std::uint64_t) { StopIfAsked(); });
    }
    errno = 0;
    std::ifstream file(options.archive, std::ios::binary);
    if (!file) {
        const int error = errno;
        throw Failure(
            fmt::format("{}: the archive can't be read: {}", options.archive, std::strerror(error)),
            error == ENOENT ? kNo : kFailed);
    }
    std::error_code ignored;
    Progress progress(session, "reading",
                      std::filesystem::file_size(Format::ToPath(options.archive), ignored));
    return ReadArchive(file, options.archive, options.incoming.match, incoming,
                       [&](std::uint64_t bytes) { progress.Add(bytes); });
}

void Import(const ImportOptions& options, Session& session) {
    Cache cache(session, options.cache);
    Incoming incoming(options.incoming.isDryRun);
    if (Read(options, incoming, session) == 0 && options.incoming.match != "*") {
        throw NoMatch(options.archive, options.incoming.match);
    }
    const IncomingResult result = TakeIn(incoming, cache, options.incoming, session);
    ReportResult(session, result, options.incoming, 0);
}

}  // namespace

void AddImport(CLI::App& program, Session& session) {
    const auto options = std::make_shared<ImportOptions>();
    Command command = AddCommand(
        program, session, "import",
        "Takes effects from an archive, all or none; makes the cache if the directory has none",
        [options, &session] { Import(*options, session); });
    command.AddChanging();
    command.AddJson();
    command.AddCache(options->cache);
    command
        .AddOption("ARCHIVE", options->archive,
                   "an archive of \"quorvel export\"; - for standard input")
        .Required();
    options->incoming.AddTo(command, "archive");
}

}  // namespace Quorvel::Tool
