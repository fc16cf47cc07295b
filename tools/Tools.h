#pragma once

#include <iosfwd>

namespace Quorvel::Tools {

// What a tool's exit code says.
constexpr int kDone = 0;
constexpr int kDamaged = 1;  // quorvel-check alone: the file has problems
constexpr int kFailed = 2;   // bad arguments, or a file that can't be read

// quorvel-check FILE: a line about a package file, and the effect cache in it if there is one, then
// a line for each problem.
int CheckTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

// quorvel-list FILE: a line for each effect of an effect cache: name, bytes, 1 if permanent, time,
// separated by tabs.
int ListTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace Quorvel::Tools
