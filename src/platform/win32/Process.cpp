#include "platform/Process.h"

#include <windows.h>

namespace Quorvel::Platform {

std::uint32_t CurrentProcessId() noexcept {
    return ::GetCurrentProcessId();
}

}  // namespace Quorvel::Platform
