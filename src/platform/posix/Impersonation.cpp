#include "platform/Impersonation.h"

#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <mutex>

namespace Quorvel::Platform {

namespace {

// The system switches off core dumps of a process when one of its threads changes its file system
// user. The last thread to change back switches them on again.
std::mutex lock;
int impersonations = 0;  // that have changed the user of a thread
bool wasDumpable = false;

}  // namespace

UserId CurrentUser() noexcept {
    return static_cast<UserId>(::setfsuid(kSelf));  // not the id of any user: changes nothing
}

// Only root may impersonate, even where a set-user-id program could.
Impersonation::Impersonation(UserId user) noexcept {
    if (user == kSelf || ::geteuid() != 0) { return; }
    const UserId current = CurrentUser();
    if (user == current) { return; }
    {
        const std::lock_guard<std::mutex> guard(lock);
        if (impersonations++ == 0) { wasDumpable = ::prctl(PR_GET_DUMPABLE) == 1; }
    }
    ::setfsuid(user);
    previous_ = current;
}

Impersonation::~Impersonation() {
    if (previous_ == kSelf) { return; }
    ::setfsuid(previous_);
    const std::lock_guard<std::mutex> guard(lock);
    if (--impersonations == 0 && wasDumpable) { ::prctl(PR_SET_DUMPABLE, 1); }
}

}  // namespace Quorvel::Platform
