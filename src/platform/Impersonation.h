#pragma once

#include <cstdint>

namespace Quorvel::Platform {

using UserId = std::uint32_t;

// Stands for the user of the process.
constexpr UserId kSelf = 0xFFFFFFFF;

// The user as whom the calling thread uses files and named objects; kSelf on Windows.
UserId CurrentUser() noexcept;

// While it lives, the calling thread uses files and named objects as another user: what it makes
// belongs to that user, and it has the rights of that user. Its groups stay those of the process:
// new files get its group, and the thread reaches what its groups may reach. Takes effect only if
// the process is root on Linux and the system permits it; CurrentUser tells. Does nothing for
// kSelf.
class Impersonation {
public:
    explicit Impersonation(UserId user) noexcept;
    Impersonation(const Impersonation&) = delete;
    Impersonation& operator=(const Impersonation&) = delete;
    ~Impersonation();

private:
    // kSelf if nothing has changed. Windows has no use for it.
    [[maybe_unused]] UserId previous_ = kSelf;
};

}  // namespace Quorvel::Platform
