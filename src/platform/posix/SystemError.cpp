#include "platform/SystemError.h"

#include <cerrno>

namespace Quorvel::Platform {

std::uint32_t LastSystemError() noexcept {
    return static_cast<std::uint32_t>(errno);
}

}  // namespace Quorvel::Platform
