#include "EffectDeclaration.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "Failure.h"

namespace EffectHost {

namespace {

std::vector<std::string> SplitWords(std::string_view line) {
    std::istringstream stream{std::string(line)};
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

class DeclarationParser {
public:
    explicit DeclarationParser(const std::string& file) : file_(file) {}

    void ParseLine(std::string_view line, int number) {
        constexpr std::string_view kMark = "//@";
        if (!line.starts_with(kMark)) { return; }
        where_ = fmt::format("{}:{}", file_, number);
        const std::vector<std::string> words = SplitWords(line.substr(kMark.size()));
        if (words.size() >= 3 && words[0] == "axis") {
            AddAxis(words);
        } else if (words.size() >= 3 && words[0] == "program") {
            AddProgram(words);
        } else {
            Fail("expected \"//@ axis MACRO VALUE...\" or \"//@ program ENTRY PROFILE AXIS...\"");
        }
    }

    EffectDeclaration Finish() {
        where_ = file_;
        if (declaration_.programs.empty()) { Fail("declares no program"); }
        for (const MacroAxis& axis : axes_) {
            if (!used_.contains(axis.macro)) {
                Fail(fmt::format("no program uses the axis {}", axis.macro));
            }
        }
        return std::move(declaration_);
    }

private:
    void AddAxis(const std::vector<std::string>& words) {
        if (FindAxis(words[1])) { Fail(fmt::format("the axis {} is declared twice", words[1])); }
        const std::set<std::string> values(words.begin() + 2, words.end());
        if (values.size() != words.size() - 2) {
            Fail(fmt::format("the axis {} has a value twice", words[1]));
        }
        axes_.push_back({words[1], {words.begin() + 2, words.end()}});
    }

    void AddProgram(const std::vector<std::string>& words) {
        const std::set<std::string> named(words.begin() + 3, words.end());
        for (const std::string& macro : named) {
            if (!FindAxis(macro)) { Fail(fmt::format("the axis {} is not declared above", macro)); }
        }
        used_.insert(named.begin(), named.end());

        EffectProgram program{words[1], words[2], axes_};
        for (MacroAxis& axis : program.axes) {
            if (!named.contains(axis.macro)) { axis.values.resize(1); }
        }
        declaration_.programs.push_back(std::move(program));
    }

    const MacroAxis* FindAxis(const std::string& macro) const {
        const auto axis = std::find_if(axes_.begin(), axes_.end(),
                                       [&](const MacroAxis& a) { return a.macro == macro; });
        return axis == axes_.end() ? nullptr : &*axis;
    }

    [[noreturn]] void Fail(const std::string& problem) const {
        throw Failure(ExitCode::BadEffects, fmt::format("{}: {}", where_, problem));
    }

    std::string file_;
    std::string where_;
    std::vector<MacroAxis> axes_;
    std::set<std::string> used_;
    EffectDeclaration declaration_;
};

}  // namespace

EffectDeclaration ParseEffectDeclaration(const std::string& file, std::string_view text) {
    DeclarationParser parser(file);
    std::istringstream lines{std::string(text)};
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        parser.ParseLine(line, number);
    }
    return parser.Finish();
}

}  // namespace EffectHost
