#include <string>

#include "tools/quorvel/Commands.h"

// Takes the place of the commands that share effects, in a build without Redis support.
namespace Quorvel::Tool {
namespace {

void AddAbsent(CLI::App& program, Session& session, const std::string& name) {
    Command command = AddCommand(
        program, session, name, "Needs Redis support, which this build of quorvel does not have",
        [name] {
            throw Failure("\"" + name +
                          "\" needs Redis support, which this build of quorvel does not have; "
                          "use a build for Linux, or pass effects on with \"quorvel export\" and "
                          "\"quorvel import\"");
        });
    command.AllowAnything();
}

}  // namespace

void AddPush(CLI::App& program, Session& session) {
    AddAbsent(program, session, "push");
}

void AddPull(CLI::App& program, Session& session) {
    AddAbsent(program, session, "pull");
}

void AddSync(CLI::App& program, Session& session) {
    AddAbsent(program, session, "sync");
}

void AddAgent(CLI::App& program, Session& session) {
    AddAbsent(program, session, "agent");
}

}  // namespace Quorvel::Tool
