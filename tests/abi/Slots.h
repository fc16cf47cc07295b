#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// Calls by slot, as a program compiled long ago does: the function's address is in the table that
// the object's first word points to, and the object is the first argument.
namespace Quorvel::Abi {

// Slots of every reference-counted object. The destructor also frees the memory if its argument
// is 1.
constexpr std::size_t kDestructor = 0;
constexpr std::size_t kAddRef = 1;
constexpr std::size_t kRelease = 2;
constexpr std::size_t kDeleteThis = 3;

template <typename Result, typename... Arguments>
Result CallSlot(const void* object, std::size_t slot, Arguments... arguments) {
    void** table;
    std::memcpy(&table, object, sizeof table);
    using Function = Result (*)(const void*, Arguments...);
    return reinterpret_cast<Function>(table[slot])(object, arguments...);
}

// A field of an object, by its offset.
template <typename Field>
Field FieldAt(const void* object, std::size_t offset) {
    Field field;
    std::memcpy(&field, static_cast<const char*>(object) + offset, sizeof field);
    return field;
}

}  // namespace Quorvel::Abi
