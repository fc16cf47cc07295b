#include "tools/quorvel/Commands.h"

// For systems without a library that reads and writes archives: the two commands are not offered.
namespace Quorvel::Tool {

void AddExport(CLI::App& /*program*/, Session& /*session*/) {}

void AddImport(CLI::App& /*program*/, Session& /*session*/) {}

}  // namespace Quorvel::Tool
