#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "quorvel/MultiProcessMemory.h"

namespace Quorvel::Torture {

constexpr std::uint64_t kMostSlots = 8;
constexpr std::uint64_t kNamesOfSlot = 64;

// What a process is doing, so that kills can be aimed. A moment lasts until the process reaches the
// next one or returns from the operation.
enum class Moment : std::uint64_t {
    Other,  // between operations, waiting for a lock, reading or loading
    Create,
    Save,       // before the journal
    Journal,    // from the creation of the save's journal on
    Overwrite,  // the same, and the file is marked; processes don't report this
    Recovery,   // undoing the save of a process that died
    Trim,       // overwriting pages to trim a file that was just loaded
    CountOfMoments
};

// What the processes of a run count. All but the first five must stay zero, except that caches may
// become inert on a volume that fills up.
enum class Count : std::uint64_t {
    Searches,
    Hits,
    Cached,
    Saves,
    Objects,
    // Searches that found another effect's bytes, or damaged ones.
    OthersBytes,
    DamagedBytes,
    // Searches that did not find a saved effect, or found a version older than the saved one.
    Missing,
    Stale,
    // Searches that found a name or a version that no process ever cached.
    Invented,
    // Cache objects that became inert, and those that were inert from the start.
    BecameInert,
    Unusable,
    CountOfCounts
};

// The free bytes that the volume really has.
constexpr std::uint64_t kRealRoom = ~std::uint64_t{0};

// Memory shared by all processes of a run: the versions of the names, each of which belongs to one
// process slot, the free bytes that their volume reports, and the counts.
class Board : public MultiProcessMemory {
public:
    explicit Board(const std::string& name);

    // The latest version of a name that its slot's process has cached, and the latest one whose
    // save has returned. Zero for none.
    std::atomic<std::uint64_t>& Issued(std::uint64_t slot, std::uint64_t name);
    std::atomic<std::uint64_t>& Saved(std::uint64_t slot, std::uint64_t name);

    // The moment that a slot's process has reached.
    std::atomic<Moment>& MomentOf(std::uint64_t slot);

    // While a moment is set here, a process that reaches it waits. Moment::Other means none.
    std::atomic<Moment>& Aim();

    // True if every process must end soon.
    std::atomic<bool>& IsEnding();

    // The cache's file is gone: no version counts as saved. REQUIRES: no process is running.
    void ForgetSaved();

    // The free bytes that the system reports for the cache's volume, or kRealRoom.
    std::atomic<std::uint64_t>& Room();

    std::atomic<std::uint64_t>& operator[](Count count);

    // Releases the block's mutex if a process was killed while holding it.
    void Repair();

protected:
    void OnMemoryCreated(void* block) override;
    void OnMemoryAttached(void* block) override;

private:
    struct Content {
        std::atomic<std::uint64_t> issued[kMostSlots][kNamesOfSlot];
        std::atomic<std::uint64_t> saved[kMostSlots][kNamesOfSlot];
        std::atomic<Moment> moments[kMostSlots];
        std::atomic<Moment> aim;
        std::atomic<bool> isEnding;
        std::atomic<std::uint64_t> room;
        std::atomic<std::uint64_t> counts[static_cast<std::uint64_t>(Count::CountOfCounts)];
    };
    static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

    Content* content_ = nullptr;
};

}  // namespace Quorvel::Torture
