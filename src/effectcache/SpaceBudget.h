#pragma once

#include <cstdint>

#include "effectcache/EffectIndex.h"
#include "package/PagedFilePackage.h"
#include "quorvel/Exceptions.h"

// How much of a volume a cache may take, and what its saves set aside.
namespace Quorvel {

// The cache takes no more bytes of a volume than this, however much space is free.
constexpr std::uint64_t kLargestSpaceBudget = 0x10000000;

// True for the errors of a volume, or of a user's share of it, that has no space left.
bool IsFull(const FileIOException& error) noexcept;

// The pages that a save's journal needs in addition to those of the index and the head file.
constexpr std::uint64_t kMoreJournalPages = 12;

// The number of bytes that the cache of a directory may take if `reserved` of the free ones are set
// aside.
std::uint64_t SpaceBudget(const char* directory, std::uint64_t reserved) noexcept;

// The most that the journal of a save without spare pages takes. The save overwrites the pages of
// the index and the head file and, for each effect that it replaces, a tail block.
std::uint64_t JournalBytes(const PagedFilePackage& package, const EffectIndex& index,
                           std::uint64_t replaced);

// Makes sure that enough pages are free for what a save will write: `bytes` of effects, the index
// and the head file. Does nothing if they would take too much of the budget, or if the file can't
// grow.
void ReservePages(PagedFilePackage& package, const EffectIndex& index, std::uint64_t bytes,
                  std::uint64_t budget);

}  // namespace Quorvel
