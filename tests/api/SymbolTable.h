#pragma once

#include <set>
#include <string>

namespace Quorvel::Testing {

// The names that a shared library exports, from its file. On Linux they are demangled, so that a
// constructor or destructor with several symbols has one name; on Windows they are the names in the
// export table.
std::set<std::string> ExportedNames(const std::string& path);

}  // namespace Quorvel::Testing
