#include "tools/quorvel/Program.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <string>

#include "quorvel/Version.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Session.h"
#include "tools/quorvel/Terminal.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

std::string Session::ReadName(const std::string& argument) const {
    return isEscaped ? Unescape(argument) : argument;
}

void Session::Tell(const std::string& line) const {
    if (!quiet) { Warn(line); }
}

void Session::Warn(const std::string& line) const {
    if (isErrTerminal) { err << "\r\x1B[K"; }  // a progress bar may be there
    err << EscapePath(line) << '\n';
}

void Session::Print(const Json& value) const {
    out << value.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

void Session::Report(const std::string& line, const Json& value) const {
    isDone = true;
    if (json) {
        Print(value);
    } else {
        Tell(line);
    }
}

void StopIfAsked() {
    if (IsStopRequested()) { throw Failure("stopped; no unfinished change was kept"); }
}

namespace {

int Run(int argc, const char* const* argv, Session& session) {
    CLI::App program(
        "Looks into effect caches and package files, and mends, moves and shrinks them.",
        "quorvel");
    program.allow_windows_style_options(false);
    program.set_version_flag("--version", "quorvel " QUORVEL_VERSION);
    program.require_subcommand(1);
    program.footer(
        "CACHE is a cache directory, or a package file. A directory is opened with the cache's "
        "lock, "
        "so that commands are right while other programs use it.\n"
        "Exit codes: 0 done, 1 not found, different or damaged, 2 bad arguments, 3 could not be "
        "done.\n\"quorvel COMMAND --help\" says more about a command.\n");
    for (const auto add :
         {AddInfo,   AddList,  AddCheck, AddGet,   AddPut,     AddRemove, AddSet,     AddExport,
          AddImport, AddMerge, AddDiff,  AddPrune, AddCompact, AddClear,  AddSalvage, AddMap,
          AddWatch,  AddPush,  AddPull,  AddSync,  AddAgent,   AddManual}) {
        add(program, session);
    }
    const auto isNamed = [&](const CLI::App* command) { return command->get_name() == argv[1]; };
    if (argc > 1 && argv[1][0] != '-' && program.get_subcommands(isNamed).empty()) {
        throw Failure(fmt::format("there is no command \"{}\"; \"quorvel --help\" lists them",
                                  Escape(argv[1])),
                      kUsage);
    }
    try {
        program.parse(ArgumentsForParser(argc, argv));
        return session.exitCode;
    } catch (const CLI::ParseError& error) {
        return program.exit(error, session.out, session.err) == 0 ? kDone : kUsage;
    }
}

}  // namespace

int RunProgram(int argc, const char* const* argv, const Streams& streams) {
    Session session{streams.in, streams.out, streams.err};
    session.isErrTerminal = streams.isErrTerminal;
    session.isOutTerminal = streams.isOutTerminal;
    int result = kFailed;
    try {
        result = Run(argc, argv, session);
    } catch (const Failure& failure) {
        session.err << "quorvel: " << EscapePath(failure.what()) << '\n';
        result = failure.exitCode;
    } catch (const std::exception& error) {
        session.err << "quorvel: " << EscapePath(error.what()) << '\n';
    }
    if (!session.out.flush() && result != kFailed) {
        session.err << "quorvel: the output can't be written"
                    << (session.isDone ? ", but the command was carried out\n" : "\n");
        return kFailed;
    }
    return result;
}

}  // namespace Quorvel::Tool
