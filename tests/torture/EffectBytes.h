#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Quorvel::Torture {

// Fewest bytes that an effect of that name can have.
std::size_t SmallestEffect(const std::string& name);

// Bytes that say whose they are: a checksum of the rest, the version, the name, and filler that
// depends on all of it. size is at least SmallestEffect(name).
std::vector<unsigned char> MakeEffect(const std::string& name, std::uint64_t version,
                                      std::size_t size);

enum class Verdict { Intact, SomebodyElses, Damaged };

// Whose the bytes are that were found under a name. version is set when they are intact.
Verdict CheckEffect(const std::string& name, std::span<const unsigned char> bytes,
                    std::uint64_t& version);

}  // namespace Quorvel::Torture
