#include "torture/Probes.h"

#include <cstdio>
#include <thread>

#include "platform/DiskSpace.h"
#include "platform/PlainFile.h"
#include "torture/Board.h"

namespace Quorvel::Torture {

namespace {

Board* observer = nullptr;
std::uint64_t ownSlot = 0;
Operation::Kind current = Operation::Kind::Load;

void Reach(Moment moment) {
    if (!observer) { return; }
    observer->MomentOf(ownSlot) = moment;
    while (moment != Moment::Other && observer->Aim() == moment) {
        std::this_thread::yield();
    }
}

}  // namespace

void Observe(Board& board, std::uint64_t slot) {
    observer = &board;
    ownSlot = slot;
}

Operation::Operation(Kind kind) {
    current = kind;
    if (kind == Kind::Create) { Reach(Moment::Create); }
}

Operation::~Operation() {
    Reach(Moment::Other);
}

}  // namespace Quorvel::Torture

using namespace Quorvel::Torture;

// The linker redirects the library's calls here.
extern "C" {

bool REAL_FREE_DISK_SPACE(const char* directory, std::uint64_t& bytes) noexcept;
std::FILE* REAL_CREATE_NEW_FILE(const char* path) noexcept;
std::FILE* REAL_OPEN_PLAIN_FILE(const char* path) noexcept;

// A save asks for the free bytes as soon as it has begun.
bool WRAP_FREE_DISK_SPACE(const char* directory, std::uint64_t& bytes) noexcept {
    if (current == Operation::Kind::Save) { Reach(Moment::Save); }
    const std::uint64_t room = observer ? observer->Room().load() : kRealRoom;
    if (room == kRealRoom) { return REAL_FREE_DISK_SPACE(directory, bytes); }
    bytes = room;
    return true;
}

// The only new file that the library creates in this way is a journal.
std::FILE* WRAP_CREATE_NEW_FILE(const char* path) noexcept {
    Reach(current == Operation::Kind::Save ? Moment::Journal : Moment::Trim);
    return REAL_CREATE_NEW_FILE(path);
}

// The journal of a process that died.
std::FILE* WRAP_OPEN_PLAIN_FILE(const char* path) noexcept {
    std::FILE* const journal = REAL_OPEN_PLAIN_FILE(path);
    if (journal) { Reach(Moment::Recovery); }
    return journal;
}

}  // extern "C"
