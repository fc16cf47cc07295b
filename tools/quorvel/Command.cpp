#include "tools/quorvel/Command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <optional>

namespace Quorvel::Tool {

namespace {

// CLI11 takes a value such as "[a,b]" for a list. This byte, which no argument contains, hides the
// bracket from it.
constexpr char kBracketMark = '\0';

}  // namespace

std::vector<std::string> ArgumentsForParser(int argc, const char* const* argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    for (std::string& argument : arguments) {
        if (argument.starts_with('[') && argument.ends_with(']')) { argument += kBracketMark; }
    }
    std::reverse(arguments.begin(), arguments.end());
    return arguments;
}

Option Option::Required() {
    option_->required();
    return *this;
}

Option Option::ShowDefault() {
    option_->capture_default_str();
    return *this;
}

Option Option::OneOf(const std::vector<std::string>& values) {
    option_->check(CLI::IsMember(values));
    return *this;
}

Option Option::Between(double lowest, double highest) {
    option_->check(CLI::Range(lowest, highest));
    return *this;
}

Option Option::NonNegative() {
    option_->check([](const std::string& text) {
        return text.starts_with('-') ? "a number below 0" : std::string();
    });
    return *this;
}

Option Option::Positive() {
    NonNegative();
    option_->check(
        [](const std::string& text) { return text == "0" ? "must not be 0" : std::string(); });
    return *this;
}

template <typename Value>
Option Command::AddOption(const std::string& name, Value& value, const std::string& help) {
    CLI::Option* const option = app->add_option(name, value, help);
    option->transform([](std::string text) {
        if (text.ends_with(kBracketMark)) { text.pop_back(); }
        return text;
    });
    return Option(option);
}

template Option Command::AddOption(const std::string&, std::string&, const std::string&);
template Option Command::AddOption(const std::string&, std::vector<std::string>&,
                                   const std::string&);
template Option Command::AddOption(const std::string&, double&, const std::string&);
template Option Command::AddOption(const std::string&, std::uint64_t&, const std::string&);
template Option Command::AddOption(const std::string&, std::optional<std::uint64_t>&,
                                   const std::string&);
template Option Command::AddOption(const std::string&, std::optional<std::string>&,
                                   const std::string&);

void Command::AddFlag(const std::string& name, bool& isGiven, const std::string& help) {
    app->add_flag(name, isGiven, help);
}

void Command::AllowAnything() {
    app->allow_extras();
}

void Command::AddReading() {
    AddFlag("--offline", session.offline,
            "take no lock and write nothing: for copies and read-only media");
    AddChanging();
}

void Command::AddChanging() {
    app->add_option("--timeout", session.timeout, "seconds to wait for the cache's lock")
        ->capture_default_str()
        ->check(CLI::Range(0U, 86400U));
}

void Command::AddCache(std::string& cache) {
    AddOption("CACHE", cache, "cache directory or package file").Required();
}

void Command::AddJson() {
    AddFlag("--json", session.json, "print JSON");
}

void Command::AddEscaped() {
    AddFlag("-e,--escaped", session.isEscaped,
            "NAME is spelled as \"quorvel list\" prints it, with \\xNN for a byte and \\\\ for a "
            "backslash");
}

Command AddCommand(CLI::App& program, Session& session, const std::string& name,
                   const std::string& help, std::function<void()> run) {
    CLI::App* const app = program.add_subcommand(name, help);
    app->callback(std::move(run));
    app->add_flag("-q,--quiet", session.quiet, "print no messages other than errors");
    return {app, session};
}

}  // namespace Quorvel::Tool
