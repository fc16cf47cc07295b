#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/quorvel/Session.h"

// CLI11 takes seconds to compile, so the commands don't include it.
namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace Quorvel::Tool {

// The arguments of the program, as CLI::App::parse takes them.
std::vector<std::string> ArgumentsForParser(int argc, const char* const* argv);

// An option or argument of a command.
class Option {
public:
    explicit Option(CLI::Option* option) : option_(option) {}

    Option Required();
    Option ShowDefault();  // in the help
    Option OneOf(const std::vector<std::string>& values);
    Option Between(double lowest, double highest);
    Option NonNegative();
    Option Positive();

private:
    CLI::Option* option_;
};

// A command of the program.
struct Command {
    CLI::App* app;
    Session& session;

    // --offline and --timeout, for commands that read a cache.
    void AddReading();

    // --timeout, for commands that change a cache.
    void AddChanging();

    // The argument CACHE.
    void AddCache(std::string& cache);

    void AddJson();

    // --escaped, for commands that take names of effects.
    void AddEscaped();

    // Accepts any arguments, and ignores them.
    void AllowAnything();

    // An option such as "-o,--output", or an argument such as "NAME". The value may be a string, a
    // number, an optional number, or a vector of strings.
    template <typename Value>
    Option AddOption(const std::string& name, Value& value, const std::string& help);

    // An option without a value.
    void AddFlag(const std::string& name, bool& isGiven, const std::string& help);
};

// Adds a command with the option --quiet; `run` is called after its arguments were parsed.
Command AddCommand(CLI::App& program, Session& session, const std::string& name,
                   const std::string& help, std::function<void()> run);

}  // namespace Quorvel::Tool
