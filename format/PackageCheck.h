#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "format/PackageImage.h"

namespace Quorvel::Format {

// Receives one line for each problem that a check finds, in the order in which it finds them.
using ProblemSink = std::function<void(const std::string& line)>;

// Checks the rules that a writer of a package file must follow, and returns one line for each
// violation; none for a sound file. If a reader with this stream limit must refuse the file, the
// only line says why.
std::vector<std::string> CheckPackage(const Bytes& file, std::uint64_t streamLimit = kHighestId);

// The same for a file that has been parsed already.
std::vector<std::string> CheckPackage(const PackageImage& image);
void CheckPackage(const PackageState& state, std::uint64_t fileSize, const ProblemSink& problem);

}  // namespace Quorvel::Format
