#include "platform/Impersonation.h"

#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace Quorvel::Platform {

UserId CurrentUser() noexcept {
    return static_cast<UserId>(::setfsuid(kSelf));  // not the id of any user: changes nothing
}

// Only root may impersonate, even where a set-user-id program could.
Impersonation::Impersonation(UserId user) noexcept {
    if (user == kSelf || ::geteuid() != 0) { return; }
    const UserId current = CurrentUser();
    if (user == current) { return; }
    wasDumpable_ = ::prctl(PR_GET_DUMPABLE) == 1;
    ::setfsuid(user);
    previous_ = current;
}

// The system switches off core dumps of a process that changes its file system user.
Impersonation::~Impersonation() {
    if (previous_ == kSelf) { return; }
    ::setfsuid(previous_);
    if (wasDumpable_) { ::prctl(PR_SET_DUMPABLE, 1); }
}

}  // namespace Quorvel::Platform
