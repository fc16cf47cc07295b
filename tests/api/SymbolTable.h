#pragma once

#include <set>
#include <string>

namespace Quorvel::Testing {

// What a shared library's file says it exports: on Linux the names as they are written in C++, each
// once, although constructors and destructors have several symbols; on Windows the names of the
// export table.
std::set<std::string> ExportedNames(const std::string& path);

}  // namespace Quorvel::Testing
