#pragma once

#include <iosfwd>

namespace Quorvel::Tools {

// Exit codes.
constexpr int kDone = 0;
constexpr int kDamaged = 1;  // the file has problems; only quorvel-check
constexpr int kFailed = 2;   // bad arguments, an unreadable file, or output that can't be written

// quorvel-check FILE: prints one line about a package file or effect cache, then one line for each
// problem, and a note if caches of this user don't use the file because of its owner.
int CheckTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

// quorvel-list FILE: prints one line for each effect of an effect cache: name, bytes, 1 if
// permanent, time, separated by tabs.
int ListTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace Quorvel::Tools
