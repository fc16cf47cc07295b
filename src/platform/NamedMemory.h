#pragma once

#include <cstdint>

// Blocks of memory that processes share by name, with the meaning of a Windows file mapping over
// the paging file: a block starts as zeroes and lives as long as anybody has it open.
namespace Quorvel::Platform {

// Opens the block of a name. Returns a handle, or null when there is none or the system refuses
// (LastSystemError).
void* OpenNamedMemory(const char* name) noexcept;

// Makes a block of that many bytes, of which the low 32 bits count; opens it when the name exists.
// Returns a handle, or null when the system refuses.
void* CreateNamedMemory(const char* name, std::uint64_t bytes) noexcept;

// Makes the first bytes of the block addressable, the whole block when bytes is 0. Returns null
// when the block, in whole pages, is smaller or the system refuses. A block is mapped once a
// handle.
void* MapNamedMemory(void* handle, std::uint64_t bytes) noexcept;

// Undoes MapNamedMemory; the handle must still be open.
void UnmapNamedMemory(void* handle, void* view) noexcept;

void CloseNamedMemory(void* handle) noexcept;

}  // namespace Quorvel::Platform
