#include "platform/Impersonation.h"

namespace Quorvel::Platform {

UserId CurrentUser() noexcept {
    return kSelf;
}

Impersonation::Impersonation(UserId /*user*/) noexcept {}

Impersonation::~Impersonation() = default;

}  // namespace Quorvel::Platform
