#pragma once

#include <cstdint>
#include <istream>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>
#include <string>

namespace Quorvel::Tool {

using Json = nlohmann::ordered_json;

// Exit codes.
constexpr int kDone = 0;
constexpr int kNo = 1;      // not found, different, damaged
constexpr int kUsage = 2;   // bad arguments
constexpr int kFailed = 3;  // could not be done

// Ends a command. what() says what failed, on which file, and what to do.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& message, int code = kFailed)
        : std::runtime_error(message), exitCode(code) {}

    const int exitCode;
};

// What a command gets besides its own arguments: input and output, and the options that several
// commands have in common.
struct Session {
    std::istream& in;
    std::ostream& out;  // data
    std::ostream& err;  // messages and progress

    bool json = false;
    bool quiet = false;
    bool offline = false;
    bool isEscaped = false;      // names in arguments are escaped
    std::uint32_t timeout = 10;  // seconds that a command waits for a cache's lock
    bool isErrTerminal = false;  // progress is shown only on a terminal
    bool isOutTerminal = false;

    int exitCode = kDone;         // what the command returns if it does not fail
    mutable bool isDone = false;  // Report was called: only output can still fail

    // The name of an effect that an argument stands for. Throws Failure.
    std::string ReadName(const std::string& argument) const;

    // Prints a line to err; Tell prints nothing if --quiet was given.
    void Warn(const std::string& line) const;
    void Tell(const std::string& line) const;

    // Prints a JSON value and a line break to out.
    void Print(const Json& value) const;

    // Reports what a command has changed: prints the JSON value if --json was given, otherwise the
    // line, as Tell does.
    void Report(const std::string& line, const Json& value) const;
};

// Throws Failure if the user has asked the program to stop (Ctrl-C). Long work calls it between
// two steps; an unfinished change is then undone.
void StopIfAsked();

}  // namespace Quorvel::Tool
