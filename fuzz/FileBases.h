#pragma once

#include <vector>

#include "fuzz/DamagedFile.h"

namespace Quorvel::Fuzz {

// Sound files that the harnesses for damaged files start from.
const std::vector<FileBase>& PackageBases();
const std::vector<FileBase>& EffectCacheBases();

}  // namespace Quorvel::Fuzz
