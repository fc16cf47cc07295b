#include "tools/quorvel/Command.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>

namespace Quorvel::Tool {

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
    option_->check(CLI::NonNegativeNumber);
    return *this;
}

Option Option::Positive() {
    option_->check(CLI::PositiveNumber);
    return *this;
}

template <typename Value>
Option Command::AddOption(const std::string& name, Value& value, const std::string& help) {
    return Option(app->add_option(name, value, help));
}

template Option Command::AddOption(const std::string&, std::string&, const std::string&);
template Option Command::AddOption(const std::string&, std::vector<std::string>&,
                                   const std::string&);
template Option Command::AddOption(const std::string&, double&, const std::string&);
template Option Command::AddOption(const std::string&, std::uint64_t&, const std::string&);
template Option Command::AddOption(const std::string&, std::optional<std::uint64_t>&,
                                   const std::string&);

void Command::AddFlag(const std::string& name, bool& isGiven, const std::string& help) {
    app->add_flag(name, isGiven, help);
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

Command AddCommand(CLI::App& program, Session& session, const std::string& name,
                   const std::string& help, std::function<void()> run) {
    CLI::App* const app = program.add_subcommand(name, help);
    app->callback(std::move(run));
    app->add_flag("-q,--quiet", session.quiet, "print no messages other than errors");
    return {app, session};
}

}  // namespace Quorvel::Tool
