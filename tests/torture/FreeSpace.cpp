#include "torture/FreeSpace.h"

#include "platform/DiskSpace.h"
#include "torture/Board.h"

namespace Quorvel::Torture {

namespace {

const std::atomic<std::uint64_t>* reported = nullptr;

}  // namespace

void ReportFreeSpace(const std::atomic<std::uint64_t>& bytes) {
    reported = &bytes;
}

}  // namespace Quorvel::Torture

using namespace Quorvel::Torture;

// The linker redirects the library's query here.
extern "C" {

bool REAL_FREE_DISK_SPACE(const char* directory, std::uint64_t& bytes) noexcept;

bool WRAP_FREE_DISK_SPACE(const char* directory, std::uint64_t& bytes) noexcept {
    const std::uint64_t room = reported ? reported->load() : kRealRoom;
    if (room == kRealRoom) { return REAL_FREE_DISK_SPACE(directory, bytes); }
    bytes = room;
    return true;
}

}  // extern "C"
