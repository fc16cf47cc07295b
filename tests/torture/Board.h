#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "quorvel/MultiProcessMemory.h"

namespace Quorvel::Torture {

constexpr std::uint64_t kMostSlots = 8;
constexpr std::uint64_t kNamesOfSlot = 64;

// What the processes of a run count. All but the first few must stay zero in an orderly run.
enum class Count : std::uint64_t {
    Searches,
    Hits,
    Cached,
    Saves,
    Objects,
    // Bytes served under a name.
    OthersBytes,
    DamagedBytes,
    // What a search did not find although its save had returned, or found in an older version.
    Missing,
    Stale,
    // A name, or a version of it, that nobody ever cached was found.
    Invented,
    // A cache object that was usable became inert; a new one was inert from the start.
    BecameInert,
    Unusable,
    CountOfCounts
};

// As many bytes as the volume really has.
constexpr std::uint64_t kRealRoom = ~std::uint64_t{0};

// What all processes of a run see: the versions of the names that belong to one process slot each,
// the room that their volume seems to have, and the counts.
class Board : public MultiProcessMemory {
public:
    explicit Board(const std::string& name);

    // The last version that a slot's process gave a name's bytes, and the last one whose save had
    // returned. Zero for none.
    std::atomic<std::uint64_t>& Issued(std::uint64_t slot, std::uint64_t name);
    std::atomic<std::uint64_t>& Saved(std::uint64_t slot, std::uint64_t name);

    // What the system tells the cache of the free bytes of its volume, or kRealRoom.
    std::atomic<std::uint64_t>& Room();

    std::atomic<std::uint64_t>& operator[](Count count);

    // Takes the block's mutex from a process that was killed while it held it.
    void Repair();

protected:
    void OnMemoryCreated(void* block) override;
    void OnMemoryAttached(void* block) override;

private:
    struct Content {
        std::atomic<std::uint64_t> issued[kMostSlots][kNamesOfSlot];
        std::atomic<std::uint64_t> saved[kMostSlots][kNamesOfSlot];
        std::atomic<std::uint64_t> room;
        std::atomic<std::uint64_t> counts[static_cast<std::uint64_t>(Count::CountOfCounts)];
    };
    static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

    Content* content_ = nullptr;
};

}  // namespace Quorvel::Torture
