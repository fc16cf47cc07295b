#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "quorvel/MultiProcessMemory.h"

namespace Quorvel::Testing {

// A MultiProcessMemory that anybody may initialise and that notes which hooks were called.
class Block : public MultiProcessMemory {
public:
    using MultiProcessMemory::Initialize;

    bool Initialize(const std::string& name, std::uint64_t bytes) {
        return Initialize(name.c_str(), bytes);
    }

    std::vector<std::string> calls;
    void* passed = nullptr;                 // to the last hook
    std::function<void(void*)> whenCalled;  // what the hooks do besides

protected:
    void OnMemoryCreated(void* block) override { Note("created", block); }
    void OnMemoryAttached(void* block) override { Note("attached", block); }

private:
    void Note(const char* hook, void* block) {
        calls.emplace_back(hook);
        passed = block;
        if (whenCalled) {
            whenCalled(block);
        }
    }
};

// A field of an object by its place in it.
template <typename Field>
Field FieldAt(const void* object, std::size_t offset) {
    Field field;
    std::memcpy(&field, static_cast<const char*>(object) + offset, sizeof field);
    return field;
}

// Where MultiProcessMemory keeps its four fields, behind the pointer to its virtual table.
constexpr std::size_t kMutexOffset = 8;
constexpr std::size_t kBytesOffset = 16;
constexpr std::size_t kMappingOffset = 24;
constexpr std::size_t kViewOffset = 32;

}  // namespace Quorvel::Testing
