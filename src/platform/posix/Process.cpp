#include "platform/Process.h"

#include <unistd.h>

namespace Quorvel::Platform {

std::uint32_t CurrentProcessId() noexcept {
    return static_cast<std::uint32_t>(::getpid());
}

}  // namespace Quorvel::Platform
