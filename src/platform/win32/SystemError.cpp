#include "platform/SystemError.h"

#include <windows.h>

namespace Quorvel::Platform {

std::uint32_t LastSystemError() noexcept {
    return ::GetLastError();
}

}  // namespace Quorvel::Platform
