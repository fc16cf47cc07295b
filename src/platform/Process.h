#pragma once

#include <cstdint>

namespace Quorvel::Platform {

std::uint32_t CurrentProcessId() noexcept;

}  // namespace Quorvel::Platform
