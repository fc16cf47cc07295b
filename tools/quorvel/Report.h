#pragma once

#include <ostream>
#include <string>

#include "tools/quorvel/Cache.h"

namespace Quorvel::Tool {

// Writes a web page about a package, which needs no other file: figures, a picture of the file page
// by page, and a table of the effects, or of the streams if there are none. The path is only shown.
void WriteReport(const Snapshot& snapshot, const std::string& path, std::ostream& out);

// Writes the picture alone, as SVG. Adjacent pages of one kind are one stroke.
void WritePicture(const Snapshot& snapshot, std::ostream& out);

}  // namespace Quorvel::Tool
