#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "format/EffectCacheImage.h"

// How the program writes and reads names, sizes and times.
namespace Quorvel::Tool {

// A name on one line: control bytes, bytes that are not UTF-8, and characters that break or reverse
// the line become \xNN for each byte, and a backslash becomes two.
std::string Escape(std::string_view name);

// The same for a path, or a message that names one, except that a backslash stays as it is: on
// Windows, it separates folders.
std::string EscapePath(std::string_view path);

// The name for which Escape returns this text. Throws Failure if there is none.
std::string Unescape(std::string_view text);

// "1.5 MiB", "312 bytes".
std::string Size(std::uint64_t bytes);

// "1 effect", "2 effects".
std::string Count(std::uint64_t number, std::string_view what);

// "2026-11-22T13:05:07.250", local time.
std::string Time(const Format::EntryTime& time);

// The reverse of Time. Throws Failure.
Format::EntryTime ParseTime(const std::string& text);

// Seconds since 1970 UTC; an estimate if the time is not valid.
std::time_t ToUnixTime(const Format::EntryTime& time);

// The local time at that number of seconds since 1970 UTC; all zero if there is none.
Format::EntryTime FromUnixTime(std::time_t seconds, std::uint32_t millisecond);

// The local time now, and the local time that number of seconds ago.
Format::EntryTime Now();
Format::EntryTime TimeBefore(std::uint64_t seconds);

// "3 days", "5 minutes".
std::string Duration(std::uint64_t seconds);

// "100MiB", "2GB", "512" in bytes; "30d", "12h", "90m", "45s", "2w" in seconds. Throw Failure with
// the exit code for bad usage.
std::uint64_t ParseSize(const std::string& text);
std::uint64_t ParseDuration(const std::string& text);

// True if a name matches a pattern of a shell: * stands for any bytes, ? for one byte, [a-z] and
// [!a-z] for a byte in or out of a set, \ for the next byte itself.
bool Matches(std::string_view pattern, std::string_view name);

}  // namespace Quorvel::Tool
