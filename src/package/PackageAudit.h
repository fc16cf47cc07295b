#pragma once

#include "package/StoredState.h"
#include "pagestore/FilePageCache.h"

namespace Quorvel {

// True if a package that was loaded is as a writer leaves it, in everything where damage could let
// one stream have the bytes of another, now or after a change:
// - each page of the head file, of a stream and of a tail block is in use, lies in the file and has
//   one owner; no other page has a successor;
// - each tail block is a chain of its eight pages, and its fragments lie in it one after the other,
//   in the order of its list, without gaps.
//
// Reads the rest of the head file's chain. False also when that fails, or without memory.
[[nodiscard]] bool IsSound(const StoredState& state, const FilePageCache& cache) noexcept;

}  // namespace Quorvel
