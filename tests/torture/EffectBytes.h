#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Quorvel::Torture {

// The minimum size of an effect with this name.
std::size_t SmallestEffect(const std::string& name);

// Bytes that identify themselves: a checksum of the rest, the version, the name, and random filler.
// size is at least SmallestEffect(name).
std::vector<unsigned char> MakeEffect(const std::string& name, std::uint64_t version,
                                      std::size_t size);

enum class Verdict { Intact, SomebodyElses, Damaged };

// Checks the bytes that were found under a name. Sets version if they are intact.
Verdict CheckEffect(const std::string& name, std::span<const unsigned char> bytes,
                    std::uint64_t& version);

}  // namespace Quorvel::Torture
