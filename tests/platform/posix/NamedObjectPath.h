#pragma once

#include <filesystem>
#include <string>

#include "platform/posix/NamedObject.h"

namespace Quorvel::Testing {

// The file behind a named object.
inline std::filesystem::path PathOf(const char* kind, const std::string& name) {
    using Platform::NamedObject;
    return std::filesystem::path(NamedObject::Folder()) / NamedObject::FileName(kind, name.c_str());
}

}  // namespace Quorvel::Testing
