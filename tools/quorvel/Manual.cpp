#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include "quorvel/Version.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Session.h"

// Writes the man page and the completions of shells from the commands themselves. The build calls
// it; "quorvel --help" doesn't show it.
namespace Quorvel::Tool {
namespace {

std::vector<const CLI::App*> CommandsOf(const CLI::App& program) {
    return program.get_subcommands(
        [](const CLI::App* command) { return !command->get_group().empty(); });
}

std::vector<const CLI::Option*> OptionsOf(const CLI::App& app, bool isPositional) {
    std::vector<const CLI::Option*> options;
    for (const CLI::Option* const option : app.get_options()) {
        if (option->get_positional() == isPositional) { options.push_back(option); }
    }
    return options;
}

// "-n", "--limit".
std::vector<std::string> SpellingsOf(const CLI::Option& option) {
    std::vector<std::string> spellings;
    for (const std::string& name : option.get_snames()) {
        spellings.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        spellings.push_back("--" + name);
    }
    return spellings;
}

bool TakesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

// The words that the option takes, if they are a fixed set: "{a,b}" in the option's type.
std::vector<std::string> ChoicesOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const std::size_t begin = type.find('{');
    const std::size_t end = type.find('}');
    if (begin == std::string::npos || end == std::string::npos) { return {}; }
    return CLI::detail::split(type.substr(begin + 1, end - begin - 1), ',');
}

// What the man page calls an option's value.
std::string ValueOf(const CLI::Option& option) {
    const std::vector<std::string> choices = ChoicesOf(option);
    if (!choices.empty()) { return CLI::detail::join(choices, "|"); }
    std::string name = option.get_lnames().empty() ? "value" : option.get_lnames()[0];
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return name;
}

std::string Replace(std::string text, char from, std::string_view to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, 1, to);
    }
    return text;
}

// ---- Man page -----------------------------------------------------------------------------------

std::string Roff(const std::string& text) {
    std::string escaped = Replace(Replace(text, '\\', "\\e"), '-', "\\-");
    if (!escaped.empty() && (escaped[0] == '.' || escaped[0] == '\'')) {
        escaped = "\\&" + escaped;
    }
    return escaped;
}

std::string RoffOption(const CLI::Option& option) {
    std::string line;
    for (const std::string& spelling : SpellingsOf(option)) {
        line += (line.empty() ? "\\fB" : ", \\fB") + Roff(spelling) + "\\fR";
    }
    return TakesValue(option) ? line + " \\fI" + Roff(ValueOf(option)) + "\\fR" : line;
}

void PrintCommandPage(const CLI::App& command, std::ostream& out) {
    std::string usage = "\\fBquorvel " + Roff(command.get_name()) + "\\fR [\\fIOPTION\\fR]...";
    for (const CLI::Option* const argument : OptionsOf(command, true)) {
        const std::string name = "\\fI" + Roff(argument->get_name(true)) + "\\fR";
        const char* const more = argument->get_items_expected_max() > 1 ? "..." : "";
        usage += argument->get_required() ? " " + name + more : " [" + name + "]" + more;
    }
    out << ".SS " << usage << '\n' << Roff(command.get_description()) << ".\n";
    for (const bool isPositional : {true, false}) {
        for (const CLI::Option* const option : OptionsOf(command, isPositional)) {
            const std::string name =
                isPositional ? "\\fI" + Roff(option->get_name(true)) + "\\fR" : RoffOption(*option);
            out << ".TP\n" << name << '\n' << Roff(option->get_description());
            const std::string standard = option->get_default_str();
            if (!standard.empty()) { out << " (" << Roff(standard) << " if left out)"; }
            out << '\n';
        }
    }
}

void PrintManPage(const CLI::App& program, std::ostream& out) {
    out << ".TH QUORVEL 1 \"\" \"quorvel " QUORVEL_VERSION
           "\" \"User Commands\"\n"
           ".SH NAME\nquorvel \\- look into effect caches and package files, and mend, move and "
           "shrink them\n.SH SYNOPSIS\n\\fBquorvel\\fR \\fICOMMAND\\fR [\\fIOPTION\\fR]... "
           "\\fICACHE\\fR...\n.SH DESCRIPTION\n"
        << Roff(program.get_description()) << '\n';
    for (const std::string& line : CLI::detail::split(program.get_footer(), '\n')) {
        out << ".PP\n" << Roff(line) << '\n';
    }
    out << ".SH COMMANDS\n";
    for (const CLI::App* const command : CommandsOf(program)) {
        PrintCommandPage(*command, out);
    }
}

// ---- Completions --------------------------------------------------------------------------------

void PrintBash(const CLI::App& program, std::ostream& out) {
    out << "# bash completion for quorvel\n_quorvel() {\n"
           "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
           "    local words=\n"
           "    COMPREPLY=()\n"
           "    if [ \"$COMP_CWORD\" -eq 1 ]; then\n        words='--help --version";
    for (const CLI::App* const command : CommandsOf(program)) {
        out << ' ' << command->get_name();
    }
    out << "'\n    else\n        case ${COMP_WORDS[1]} in\n";
    for (const CLI::App* const command : CommandsOf(program)) {
        std::string choices;
        std::string words;
        std::string values;  // options whose value is a file or free text
        for (const CLI::Option* const option : OptionsOf(*command, false)) {
            const std::string spellings = CLI::detail::join(SpellingsOf(*option), "|");
            words += " " + CLI::detail::join(SpellingsOf(*option), " ");
            if (!ChoicesOf(*option).empty()) {
                choices += fmt::format("            {}) words='{}' ;;\n", spellings,
                                       CLI::detail::join(ChoicesOf(*option), " "));
            } else if (TakesValue(*option)) {
                values += (values.empty() ? "" : "|") + spellings;
            }
        }
        out << "        " << command->get_name() << ")\n            case $previous in\n" << choices;
        if (!values.empty()) { out << "            " << values << ") ;;\n"; }
        out << "            *) [ \"${current:0:1}\" != - ] || words='" << words.substr(1)
            << "' ;;\n            esac ;;\n";
    }
    out << "        esac\n    fi\n"
           "    if [ -n \"$words\" ]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
           "    else\n"
           "        mapfile -t COMPREPLY < <(compgen -f -- \"$current\")\n"
           "    fi\n}\ncomplete -o filenames -F _quorvel quorvel\n";
}

std::string ZshText(const std::string& text) {
    return Replace(Replace(Replace(Replace(text, '\'', "'\\''"), ':', "\\:"), '[', "\\["), ']',
                   "\\]");
}

void PrintZsh(const CLI::App& program, std::ostream& out) {
    out << "#compdef quorvel\n_quorvel() {\n    local -a commands\n    commands=(\n";
    for (const CLI::App* const command : CommandsOf(program)) {
        out << "        '" << command->get_name() << ':' << ZshText(command->get_description())
            << "'\n";
    }
    out << "    )\n    if (( CURRENT == 2 )); then\n        _describe command commands\n"
           "        return\n    fi\n    local command=$words[2]\n    shift words\n"
           "    (( CURRENT-- ))\n    case $command in\n";
    for (const CLI::App* const command : CommandsOf(program)) {
        out << "    " << command->get_name() << ")\n        _arguments \\\n";
        for (const CLI::Option* const option : OptionsOf(*command, false)) {
            const std::vector<std::string> choices = ChoicesOf(*option);
            std::string value;
            if (!choices.empty()) {
                value = ":value:(" + CLI::detail::join(choices, " ") + ")";
            } else if (TakesValue(*option)) {
                value = ":value:_files";
            }
            for (const std::string& spelling : SpellingsOf(*option)) {
                out << "            '" << spelling << '[' << ZshText(option->get_description())
                    << ']' << value << "' \\\n";
            }
        }
        out << "            '*:file:_files' ;;\n";
    }
    out << "    esac\n}\n_quorvel \"$@\"\n";
}

void PrintFish(const CLI::App& program, std::ostream& out) {
    const auto quote = [](const std::string& text) {
        return "'" + Replace(Replace(text, '\\', "\\\\"), '\'', "\\'") + "'";
    };
    out << "# fish completion for quorvel\n";
    for (const CLI::App* const command : CommandsOf(program)) {
        const std::string name = command->get_name();
        out << "complete -c quorvel -n __fish_use_subcommand -f -a " << name << " -d "
            << quote(command->get_description()) << '\n';
        for (const CLI::Option* const option : OptionsOf(*command, false)) {
            out << "complete -c quorvel -n '__fish_seen_subcommand_from " << name << "'";
            for (const std::string& shortName : option->get_snames()) {
                out << " -s " << shortName;
            }
            for (const std::string& longName : option->get_lnames()) {
                out << " -l " << longName;
            }
            if (!ChoicesOf(*option).empty()) {
                out << " -x -a " << quote(CLI::detail::join(ChoicesOf(*option), " "));
            } else if (TakesValue(*option)) {
                out << " -r";
            }
            out << " -d " << quote(option->get_description()) << '\n';
        }
    }
}

}  // namespace

void AddManual(CLI::App& program, Session& session) {
    CLI::App* const generate = program.add_subcommand("generate", "");
    generate->group("");
    const auto add = [&](const std::string& name, void (*print)(const CLI::App&, std::ostream&)) {
        generate->add_subcommand(name, "")->callback(
            [&program, &session, print] { print(program, session.out); });
    };
    generate->require_subcommand(1);
    add("man", PrintManPage);
    add("bash", PrintBash);
    add("zsh", PrintZsh);
    add("fish", PrintFish);
}

}  // namespace Quorvel::Tool
