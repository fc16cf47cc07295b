#pragma once

#include <cstdint>

namespace Quorvel::Platform {

using UserId = std::uint32_t;

// Stands for the user of the process.
constexpr UserId kSelf = 0xFFFFFFFF;

// The user as whom the calling thread uses files and named objects; kSelf on Windows.
UserId CurrentUser() noexcept;

// While an object of this class exists, the thread that made it uses files and named objects as
// another user: what the thread makes belongs to that user, and the thread has that user's rights.
// Its groups stay those of the process: new files get its group, and the thread reaches what its
// groups may reach. Takes effect only if the process is root on Linux and the system permits it;
// CurrentUser tells whether it did. Does nothing for kSelf.
class Impersonation {
public:
    explicit Impersonation(UserId user) noexcept;
    Impersonation(const Impersonation&) = delete;
    Impersonation& operator=(const Impersonation&) = delete;
    ~Impersonation();

private:
    // kSelf if the user was not changed. Unused on Windows.
    [[maybe_unused]] UserId previous_ = kSelf;
};

}  // namespace Quorvel::Platform
