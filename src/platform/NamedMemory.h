#pragma once

#include <cstdint>

// Blocks of memory that processes share by name, with the semantics of a Windows file mapping over
// the paging file: a block starts as zeroes and lives as long as any process has it open.
namespace Quorvel::Platform {

// Opens the block of a name. Returns a handle, or null when there is none or the system refuses
// (LastSystemError).
void* OpenNamedMemory(const char* name) noexcept;

// Creates a block of the given size (only its low 32 bits count), or opens the block that already
// has the name. Returns a handle, or null when the system refuses.
void* CreateNamedMemory(const char* name, std::uint64_t bytes) noexcept;

// Maps the first bytes of the block, or all of it when bytes is 0. Returns null when the block,
// rounded up to whole pages, is smaller or the system refuses. REQUIRES: the handle is not mapped.
void* MapNamedMemory(void* handle, std::uint64_t bytes) noexcept;

// Undoes MapNamedMemory; the handle must still be open.
void UnmapNamedMemory(void* handle, void* view) noexcept;

void CloseNamedMemory(void* handle) noexcept;

}  // namespace Quorvel::Platform
