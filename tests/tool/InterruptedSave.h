#pragma once

#include <cstdint>
#include <string>

namespace Quorvel::Tool {

// Leaves a file as a process that dies in a save does: marked, a page overwritten with zeros, and
// the old bytes in the journal.
void InterruptSave(const std::string& path, std::uint64_t page);

}  // namespace Quorvel::Tool
