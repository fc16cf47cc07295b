#include "SourceText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <optional>
#include <string_view>

#include "Checksum.h"
#include "Failure.h"
#include "Paths.h"

namespace EffectHost {

namespace {

constexpr std::string_view kBlanks = " \t";

// The text with blanks in place of comments, so that everything else keeps its position.
std::string WithoutComments(std::string text) {
    const auto blank = [&text](std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i) {
            text[i] = text[i] == '\n' ? '\n' : ' ';
        }
    };
    for (std::size_t at = 0; at < text.size(); ++at) {
        std::size_t end = at;
        if (text[at] == '"') {  // a comment mark inside quotes is not a comment
            at = std::min(text.find_first_of("\"\n", at + 1), text.size());
        } else if (text.compare(at, 2, "//") == 0) {
            end = std::min(text.find('\n', at), text.size());
        } else if (text.compare(at, 2, "/*") == 0) {
            const std::size_t close = text.find("*/", at + 2);
            end = close == text.npos ? text.size() : close + 2;
        }
        if (end > at) {
            blank(at, end);
            at = end - 1;
        }
    }
    return text;
}

// An #include "NAME" in a line without comments.
struct IncludeDirective {
    std::size_t begin;  // of the number sign
    std::size_t end;    // after the closing quote
    std::string name;
};

// Returns nothing for any other line.
std::optional<IncludeDirective> ParseInclude(std::string_view line, const std::string& where) {
    constexpr std::string_view kWord = "include";
    const std::size_t sign = line.find_first_not_of(kBlanks);
    if (sign == line.npos || line[sign] != '#') { return std::nullopt; }
    const std::size_t word = line.find_first_not_of(kBlanks, sign + 1);
    if (word == line.npos || !line.substr(word).starts_with(kWord)) { return std::nullopt; }
    const std::size_t behind = word + kWord.size();
    if (behind < line.size() &&
        (std::isalnum(static_cast<unsigned char>(line[behind])) != 0 || line[behind] == '_')) {
        return std::nullopt;
    }
    const std::size_t open = line.find_first_not_of(kBlanks, behind);
    const std::size_t close = open == line.npos ? open : line.find('"', open + 1);
    if (close == line.npos || line[open] != '"') {
        throw Failure(ExitCode::BadEffects, fmt::format("{}: #include needs a \"name\"", where));
    }
    return IncludeDirective{sign, close + 1, std::string(line.substr(open + 1, close - open - 1))};
}

class SourceReader {
public:
    SourceReader(const std::filesystem::path& folder, SourceText& source)
        : folder_(folder), source_(source) {}

    // The text of a file, with its directives in the form that every compiler takes. Adds includes
    // that were not read before.
    std::string Read(const std::string& file) {
        std::string text = ReadTextFile(folder_ / ToPath(file));
        const std::string bare = WithoutComments(text);
        std::string result;
        std::size_t copied = 0;
        int number = 1;
        for (std::size_t at = 0; at < bare.size(); ++number) {
            const std::size_t end = std::min(bare.find('\n', at), bare.size());
            const auto directive = ParseInclude(std::string_view(bare).substr(at, end - at),
                                                fmt::format("{}:{}", file, number));
            if (directive) {
                result += text.substr(copied, at + directive->begin - copied);
                result += fmt::format("#include\"{}\"", directive->name);
                copied = at + directive->end;
                Include(directive->name);
            }
            at = end + 1;
        }
        return result + text.substr(copied);
    }

private:
    void Include(const std::string& file) {
        if (source_.includes.try_emplace(file).second) { source_.includes[file] = Read(file); }
    }

    const std::filesystem::path& folder_;
    SourceText& source_;
};

}  // namespace

std::string ReadTextFile(const std::filesystem::path& path) {
    // Some systems can open folders, and reading a pipe would wait.
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error) && !error) {
        throw Failure(ExitCode::BadEffects, fmt::format("{} is not a file", ToText(path)));
    }
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file) { throw Failure(ExitCode::BadEffects, fmt::format("can't read {}", ToText(path))); }
    return text;
}

SourceText ReadSourceText(const std::filesystem::path& folder, const std::string& file) {
    SourceText source;
    source.text = SourceReader(folder, source).Read(file);

    Checksum checksum;
    checksum.Add(source.text);
    for (const auto& [name, text] : source.includes) {
        checksum.Add(name).Add(text);
    }
    source.checksum = checksum.Value();
    return source;
}

}  // namespace EffectHost
