#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Quorvel::Tool {

// A file of a tar archive, or something else in it.
struct TarMember {
    enum class Kind { File, Directory, SymbolicLink, HardLink, Device };

    std::string path;
    std::string data;
    Kind kind = Kind::File;
};

// A tar archive, made by the library that the program uses.
std::string Pack(const std::vector<TarMember>& members);
std::vector<TarMember> Unpack(const std::string& archive);

}  // namespace Quorvel::Tool
