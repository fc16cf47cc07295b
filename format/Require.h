#pragma once

#include <sstream>

#include "format/Bytes.h"

namespace Quorvel::Format {

// Throws FormatError with the given words in a row, unless a condition holds.
template <typename... Words>
void Require(bool holds, const Words&... otherwise) {
    if (holds) { return; }
    std::ostringstream line;
    (line << ... << otherwise);
    throw FormatError(line.str());
}

}  // namespace Quorvel::Format
