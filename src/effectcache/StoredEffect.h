#pragma once

#include <cstdint>
#include <span>

#include "effectcache/EffectIndex.h"
#include "effectcache/EffectKey.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/IndexEntry.h"
#include "package/PagedFilePackage.h"
#include "vornutil/Tab.h"

// An effect of the file: its bytes in a stream of the package, and its entry in the index.
// REQUIRES, for all functions: the file mutex is held, and the index describes the package.
namespace Quorvel {

// Reads an effect's bytes. False when they can't be read or have another length than the record
// says. Throws what OpenDataStream throws.
[[nodiscard]] bool ReadEffect(PagedFilePackage& package, const EffectRecord& record,
                              Tab<unsigned char>& data);

// Adds an effect, after deleting the one that had the name. REQUIRES: `hash` is the name's. Throws
// FileIOException, OutOfMemoryException, std::bad_alloc.
void StoreEffect(PagedFilePackage& package, EffectIndex& index, const EffectKey& name,
                 std::uint32_t hash, std::span<const unsigned char> bytes, std::uint32_t permanent,
                 const EntryTime& time);

// Deletes an effect and its stream. Throws FileIOException, std::bad_alloc.
void DeleteEffect(PagedFilePackage& package, EffectIndex& index, IndexEntry* entry);

}  // namespace Quorvel
