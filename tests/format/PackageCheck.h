#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "format/PackageImage.h"

namespace Quorvel::Format {

// Checks everything that a writer keeps true of a package file, and returns one line for each thing
// that is not so; nothing for a sound file. A file that a reader with that stream limit must refuse
// has one problem, the reason.
std::vector<std::string> CheckPackage(const Bytes& file, std::uint64_t streamLimit = kHighestId);

// The same for a file that has been taken apart already.
std::vector<std::string> CheckPackage(const PackageImage& image);

}  // namespace Quorvel::Format
