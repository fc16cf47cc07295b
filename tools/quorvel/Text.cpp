#include "tools/quorvel/Text.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <utility>

#include "platform/Clock.h"
#include "tools/quorvel/Session.h"

namespace Quorvel::Tool {
namespace {

// The length of the UTF-8 character at the start of the text; 0 if there is none, or if it can't be
// shown as part of a line.
std::size_t CharacterLength(std::string_view text) {
    const auto byte = [&](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const unsigned first = byte(0);
    if (first < 0x80) { return 1; }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4) { return 0; }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) { return 0; }
    }
    // Refuses overlong forms, surrogates, numbers above 0x10FFFF, and C2 80 to C2 9F, which are
    // control characters.
    const unsigned second = byte(1);
    // Also refuses characters that reverse or break the line: U+2028 to U+202E, U+2066 to U+2069.
    const unsigned third = byte(2);
    const bool isValid = !(first == 0xE2 && second == 0x80 && third >= 0xA8 && third <= 0xAE) &&
                         !(first == 0xE2 && second == 0x81 && third >= 0xA6 && third <= 0xA9) &&
                         !(first == 0xE0 && second < 0xA0) && !(first == 0xED && second > 0x9F) &&
                         !(first == 0xF0 && second < 0x90) && !(first == 0xF4 && second > 0x8F) &&
                         !(first == 0xC2 && second < 0xA0);
    return isValid ? length : 0;
}

std::string EscapeBytes(std::string_view name, const char* backslash) {
    std::string text;
    while (!name.empty()) {
        const std::size_t length = CharacterLength(name);
        const auto byte = static_cast<unsigned char>(name[0]);
        if (byte == '\\') {
            text += backslash;
        } else if (length == 0 || byte < 0x20 || byte == 0x7F) {
            text += fmt::format("\\x{:02X}", byte);
        } else {
            text += name.substr(0, length);
        }
        name.remove_prefix(length == 0 ? 1 : length);
    }
    return text;
}

[[noreturn]] void BadNumber(const std::string& what, const std::string& text,
                            const std::string& examples) {
    throw Failure(fmt::format("\"{}\" is no {}; write, for example, {}", text, what, examples),
                  kUsage);
}

// A number and the unit after it. The number may have a fraction.
std::pair<double, std::string_view> SplitUnit(std::string_view text) {
    const std::size_t end = text.find_first_not_of("0123456789.");
    const std::string number(text.substr(0, end));
    std::size_t used = 0;
    double value = -1;
    try {
        value = std::stod(number, &used);
    } catch (const std::exception&) {}
    if (used != number.size()) { value = -1; }
    return {value, end == std::string_view::npos ? std::string_view() : text.substr(end)};
}

template <std::size_t N>
std::uint64_t ParseQuantity(const std::string& text,
                            const std::array<std::pair<std::string_view, double>, N>& units,
                            const std::string& what, const std::string& examples) {
    const auto [value, unit] = SplitUnit(text);
    for (const auto& [name, factor] : units) {
        if (unit == name && value >= 0 && value * factor < 9e18) {
            return static_cast<std::uint64_t>(value * factor);
        }
    }
    BadNumber(what, text, examples);
}

std::tm ToTm(const Format::EntryTime& time) {
    std::tm result = {};
    result.tm_year = time.year - 1900;
    result.tm_mon = time.month - 1;
    result.tm_mday = time.day;
    result.tm_hour = time.hour;
    result.tm_min = time.minute;
    result.tm_sec = time.second;
    result.tm_isdst = -1;
    return result;
}

// A pattern's set, such as [!a-z]: true if the byte belongs to it. Moves `at` past the set. A set
// without an end stands for its first byte, '['.
bool IsInSet(std::string_view pattern, std::size_t& at, char byte) {
    std::size_t i = at + 1;
    const bool isNegated = i < pattern.size() && (pattern[i] == '!' || pattern[i] == '^');
    i += isNegated ? 1 : 0;
    bool isIn = false;
    const std::size_t first = i;
    for (; i < pattern.size() && (i == first || pattern[i] != ']'); ++i) {
        const auto low = static_cast<unsigned char>(pattern[i]);
        auto high = low;
        if (i + 2 < pattern.size() && pattern[i + 1] == '-' && pattern[i + 2] != ']') {
            high = static_cast<unsigned char>(pattern[i + 2]);
            i += 2;
        }
        const auto value = static_cast<unsigned char>(byte);
        isIn = isIn || (value >= low && value <= high);
    }
    if (i >= pattern.size()) {
        ++at;
        return byte == '[';
    }
    at = i + 1;
    return isIn != isNegated;
}

// Matches one byte against the element of the pattern at `at`, which is not '*', and moves past it.
bool MatchesOne(std::string_view pattern, std::size_t& at, char byte) {
    if (pattern[at] == '?') {
        ++at;
        return true;
    }
    if (pattern[at] == '[') { return IsInSet(pattern, at, byte); }
    if (pattern[at] == '\\' && at + 1 < pattern.size()) { ++at; }
    return pattern[at++] == byte;
}

}  // namespace

std::string Escape(std::string_view name) {
    return EscapeBytes(name, "\\\\");
}

std::string EscapePath(std::string_view path) {
    return EscapeBytes(path, "\\");
}

std::string Unescape(std::string_view text) {
    std::string name;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isEscaped = text[i] == '\\';
        const bool isCode = isEscaped && text.substr(i + 1, 1) == "x";
        i += isEscaped ? 1 : 0;
        if (!isCode) {
            name += text.substr(i, 1);
            continue;
        }
        unsigned byte = 0;
        const std::string_view digits = text.substr(i + 1, 2);
        std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        name += static_cast<char>(byte);
        i += 2;
    }
    if (Escape(name) != text) {
        throw Failure(fmt::format("\"{}\" is not an escaped name", EscapePath(text)), kUsage);
    }
    return name;
}

std::string Size(std::uint64_t bytes) {
    constexpr std::array<const char*, 4> kUnits = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) { return Count(bytes, "byte"); }
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    while (value >= 1023.95 && unit + 1 < kUnits.size()) {
        value /= 1024;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string Count(std::uint64_t number, std::string_view what) {
    return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

std::string Time(const Format::EntryTime& time) {
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}", time.year, time.month, time.day,
                       time.hour, time.minute, time.second, time.millisecond);
}

Format::EntryTime ParseTime(const std::string& text) {
    Format::EntryTime time;
    unsigned fields[7] = {};
    std::sscanf(text.c_str(), "%5u-%5u-%5uT%5u:%5u:%5u.%10u", &fields[0], &fields[1], &fields[2],
                &fields[3], &fields[4], &fields[5], &fields[6]);
    std::size_t i = 0;
    for (std::uint16_t* field :
         {&time.year, &time.month, &time.day, &time.hour, &time.minute, &time.second}) {
        *field = static_cast<std::uint16_t>(fields[i++]);
    }
    time.millisecond = fields[i];
    if (Time(time) != text) {
        throw Failure(
            fmt::format("\"{}\" is not a time such as 2026-11-22T13:05:07.250", Escape(text)));
    }
    return time;
}

std::time_t ToUnixTime(const Format::EntryTime& time) {
    std::tm fields = ToTm(time);
    return std::mktime(&fields);
}

Format::EntryTime Now() {
    const Platform::LocalTime now = Platform::CurrentLocalTime();
    return {now.year, now.month, now.day, now.hour, now.minute, now.second, now.milliseconds};
}

Format::EntryTime FromUnixTime(std::time_t seconds, std::uint32_t millisecond) {
    const std::tm* const local = std::localtime(&seconds);
    if (!local) { return {}; }
    const auto narrow = [](int field) { return static_cast<std::uint16_t>(field); };
    return {narrow(local->tm_year + 1900),
            narrow(local->tm_mon + 1),
            narrow(local->tm_mday),
            narrow(local->tm_hour),
            narrow(local->tm_min),
            narrow(local->tm_sec),
            millisecond};
}

Format::EntryTime TimeBefore(std::uint64_t seconds) {
    const Format::EntryTime now = Now();
    const std::time_t then = ToUnixTime(now) - static_cast<std::time_t>(seconds);
    return then > 0 ? FromUnixTime(then, now.millisecond) : Format::EntryTime();
}

std::string Duration(std::uint64_t seconds) {
    constexpr std::array<std::pair<std::uint64_t, const char*>, 4> kUnits = {
        {{86400, "day"}, {3600, "hour"}, {60, "minute"}, {1, "second"}}};
    for (const auto& [length, name] : kUnits) {
        if (seconds >= 2 * length || length == 1) { return Count(seconds / length, name); }
    }
    return {};
}

std::uint64_t ParseSize(const std::string& text) {
    constexpr double kKibi = 1024;
    return ParseQuantity<11>(text,
                             {{{"", 1},
                               {"B", 1},
                               {"KiB", kKibi},
                               {"MiB", kKibi * kKibi},
                               {"GiB", kKibi * kKibi * kKibi},
                               {"K", kKibi},
                               {"M", kKibi * kKibi},
                               {"G", kKibi * kKibi * kKibi},
                               {"KB", 1e3},
                               {"MB", 1e6},
                               {"GB", 1e9}}},
                             "size", "100MiB or 5000");
}

std::uint64_t ParseDuration(const std::string& text) {
    return ParseQuantity<5>(text, {{{"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}, {"w", 604800}}},
                            "length of time", "30d, 12h, 45m or 2w");
}

// After a mismatch, the last '*' takes one more byte.
bool Matches(std::string_view pattern, std::string_view name) {
    constexpr std::size_t kNone = std::string_view::npos;
    std::size_t at = 0;
    std::size_t done = 0;
    std::size_t star = kNone;
    std::size_t taken = 0;
    while (done < name.size()) {
        if (at < pattern.size() && pattern[at] == '*') {
            star = ++at;
            taken = done;
            continue;
        }
        std::size_t next = at;
        if (at < pattern.size() && MatchesOne(pattern, next, name[done])) {
            at = next;
            ++done;
            continue;
        }
        if (star == kNone) { return false; }
        at = star;
        done = ++taken;
    }
    while (at < pattern.size() && pattern[at] == '*') {
        ++at;
    }
    return at == pattern.size();
}

}  // namespace Quorvel::Tool
