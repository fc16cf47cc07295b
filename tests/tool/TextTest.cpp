#include "tools/quorvel/Text.h"

#include <gtest/gtest.h>

#include <string>

#include "tools/quorvel/Session.h"

namespace Quorvel::Tool {
namespace {

TEST(Text, EscapesWhatIsNotPrintable) {
    const struct {
        std::string name;
        std::string escaped;
    } rows[] = {
        {"plain ~", "plain ~"},
        {"\\", "\\\\"},
        {"\n\x7F", "\\x0A\\x7F"},
        {"\xC3\xA4", "\xC3\xA4"},    // a letter of two bytes
        {"\xC2\x85", "\\xC2\\x85"},  // a control character
        {"\xC3", "\\xC3"},           // cut short
        {"\xC0\x80", "\\xC0\\x80"},  // longer than needed
        {"\xE0\x9F\x80", "\\xE0\\x9F\\x80"},
        {"\xED\xA0\x80", "\\xED\\xA0\\x80"},  // half of a surrogate pair
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
        {"\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
        {"\xE2\x80\xA7", "\xE2\x80\xA7"},
        {"\xE2\x80\xA8", "\\xE2\\x80\\xA8"},  // a line separator
        {"\xE2\x80\xAE", "\\xE2\\x80\\xAE"},  // from right to left
        {"\xE2\x81\xA6", "\\xE2\\x81\\xA6"},
        {"\xE2\x82\xAC", "\xE2\x82\xAC"},
        {std::string("\0x", 2), "\\x00x"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Escape(row.name), row.escaped);
    }
}

TEST(Text, KeepsTheBackslashesOfPaths) {
    EXPECT_EQ(EscapePath("C:\\folder\\\xC3\xA4\n\xFF"), "C:\\folder\\\xC3\xA4\\x0A\\xFF");
}

TEST(Text, ReadsTheNamesThatItSpells) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    for (const std::string& name : {all, std::string(), std::string("\xC3\xA4 \\x41")}) {
        EXPECT_EQ(Unescape(Escape(name)), name);
    }
    for (const char* text : {"\\", "\\x", "\\x4", "\\x41", "\\xfF", "\\xG0", "\\n", "\n", "\xFF"}) {
        EXPECT_THROW(Unescape(text), Failure) << text;
    }
}

TEST(Text, MatchesPatternsLikeAShell) {
    const struct {
        const char* pattern;
        const char* name;
        bool matches;
    } rows[] = {
        {"", "", true},           {"", "a", false},        {"*", "", true},
        {"a*c", "abbc", true},    {"a*c", "abcb", false},  {"*a*b*", "xxaxxbx", true},
        {"a?c", "abc", true},     {"a?c", "ac", false},    {"[a-c]x", "bx", true},
        {"[a-c]x", "dx", false},  {"[!a-c]x", "dx", true}, {"[^a]", "a", false},
        {"[]]", "]", true},       {"[-a]", "-", true},     {"[a", "[a", true},
        {"\\*", "*", true},       {"\\*", "x", false},     {"*.hlsl *", "a.hlsl ps", true},
        {"**", "anything", true}, {"a", "A", false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Matches(row.pattern, row.name), row.matches) << row.pattern << " " << row.name;
    }
}

TEST(Text, ReadsSizesAndDurations) {
    EXPECT_EQ(ParseSize("0"), 0U);
    EXPECT_EQ(ParseSize("1.5KiB"), 1536U);
    EXPECT_EQ(ParseSize("100MiB"), 104857600U);
    EXPECT_EQ(ParseSize("2MB"), 2000000U);
    EXPECT_EQ(ParseDuration("90s"), 90U);
    EXPECT_EQ(ParseDuration("2w"), 1209600U);
    for (const char* text : {"", "x", "-1", "1.2.3", "5 MiB", "MiB", "99999999999999999999"}) {
        EXPECT_THROW(ParseSize(text), Failure) << text;
        EXPECT_THROW(ParseDuration(text), Failure) << text;
    }
    EXPECT_THROW(ParseDuration("30"), Failure);
}

TEST(Text, SpellsSizesAndDurations) {
    EXPECT_EQ(Size(1), "1 byte");
    EXPECT_EQ(Size(1023), "1023 bytes");
    EXPECT_EQ(Size(1024), "1.0 KiB");
    EXPECT_EQ(Size(1048575), "1.0 MiB");
    EXPECT_EQ(Size(3ULL << 30), "3.0 GiB");
    EXPECT_EQ(Duration(1), "1 second");
    EXPECT_EQ(Duration(119), "119 seconds");
    EXPECT_EQ(Duration(7200), "2 hours");
    EXPECT_EQ(Duration(86400 * 3), "3 days");
}

TEST(Text, ReadsTheTimesThatItSpells) {
    for (const Format::EntryTime& time :
         {Format::EntryTime{2024, 2, 29, 23, 59, 58, 7}, Format::EntryTime{},
          Format::EntryTime{65535, 65535, 65535, 65535, 65535, 65535, 4294967295}}) {
        EXPECT_EQ(Time(ParseTime(Time(time))), Time(time));
    }
    EXPECT_EQ(ParseTime("2024-02-29T23:59:58.007").millisecond, 7U);
    for (const char* text : {"", "2024-02-29", "2024-02-29T23:59:58.007x", "2024-2-29T23:59:58.007",
                             "65536-02-29T23:59:58.007", "2024-02-29T23:59:58.4294967296"}) {
        EXPECT_THROW(ParseTime(text), Failure) << text;
    }
}

TEST(Text, KnowsTheSecondsSince1970) {
    const std::time_t seconds = ToUnixTime({2001, 9, 9, 1, 46, 40, 0});
    EXPECT_LE(std::abs(seconds - 1000000000), 14 * 3600);  // of a time zone
    EXPECT_EQ(ToUnixTime({2001, 9, 9, 1, 46, 41, 0}), seconds + 1);
}

TEST(Text, CountsBackFromNow) {
    const std::time_t age = ToUnixTime(Now()) - ToUnixTime(TimeBefore(86400));
    EXPECT_GE(age, 86400 - 3700);  // a change of the clocks
    EXPECT_LE(age, 86400 + 3700);
}

}  // namespace
}  // namespace Quorvel::Tool
