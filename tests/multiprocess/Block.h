#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "quorvel/MultiProcessMemory.h"

namespace Quorvel::Testing {

// A MultiProcessMemory with a public Initialize that records the calls of its hooks.
class Block : public MultiProcessMemory {
public:
    using MultiProcessMemory::Initialize;

    bool Initialize(const std::string& name, std::uint64_t bytes) {
        return Initialize(name.c_str(), bytes);
    }

    std::vector<std::string> calls;
    void* passed = nullptr;                 // to the last hook
    std::function<void(void*)> whenCalled;  // called by the hooks

protected:
    void OnMemoryCreated(void* block) override { Note("created", block); }
    void OnMemoryAttached(void* block) override { Note("attached", block); }

private:
    void Note(const char* hook, void* block) {
        calls.emplace_back(hook);
        passed = block;
        if (whenCalled) { whenCalled(block); }
    }
};

// A field of an object, by its offset.
template <typename Field>
Field FieldAt(const void* object, std::size_t offset) {
    Field field;
    std::memcpy(&field, static_cast<const char*>(object) + offset, sizeof field);
    return field;
}

// Offsets of the four fields of MultiProcessMemory, after the pointer to the virtual table.
constexpr std::size_t kMutexOffset = 8;
constexpr std::size_t kBytesOffset = 16;
constexpr std::size_t kMappingOffset = 24;
constexpr std::size_t kViewOffset = 32;

}  // namespace Quorvel::Testing
