#pragma once

#include <vector>

#include "fuzz/DamagedFile.h"

namespace Quorvel::Fuzz {

// Sound files that the harnesses of damaged files start from. The first of each is the smallest.
const std::vector<FileBase>& PackageBases();
const std::vector<FileBase>& EffectCacheBases();

}  // namespace Quorvel::Fuzz
