#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Quorvel::Tool {

// A checksum of 128 bits that finds accidental differences. It is XXH3, the one that the program
// xxh128sum prints.
struct Checksum {
    std::uint64_t high = 0;
    std::uint64_t low = 0;

    bool operator==(const Checksum&) const = default;

    // 32 digits, as xxh128sum prints them.
    std::string Text() const;
};

Checksum ChecksumOf(const void* data, std::size_t size);

// The checksum of bytes that come in pieces.
class ChecksumBuilder {
public:
    ChecksumBuilder();
    ~ChecksumBuilder();

    void Add(const void* data, std::size_t size);

    // Of all bytes so far.
    Checksum Get() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace Quorvel::Tool
