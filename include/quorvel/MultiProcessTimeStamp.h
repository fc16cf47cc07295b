#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "quorvel/MultiProcessMemory.h"

namespace Quorvel {

// The whole content of a time stamp's shared block. A token that two writers never make alike;
// nobody reads a time out of it.
struct TimeStampRecord {
    std::int64_t seconds;   // since 1970-01-01 UTC
    std::int64_t counter;   // the performance counter
    std::uint32_t random;   // a pseudo-random number
    std::uint32_t process;  // id of the process that wrote the stamp
};
static_assert(sizeof(TimeStampRecord) == 24);

// Tells processes that share a resource when one of them has changed it.
class QUORVEL_API MultiProcessTimeStamp : public MultiProcessMemory {
public:
    MultiProcessTimeStamp() noexcept;
    ~MultiProcessTimeStamp() override;

    // Opens the stamp of that name, or makes it. What the resource is like now counts as seen.
    // Returns true; throws as MultiProcessMemory::Initialize does. Before, nobody learns of an
    // update and nothing has changed.
    bool Initialize(const char* name);

    // Announces a change of the resource. This object does not see it as one.
    void UpdateTimeStamp();

    // Whether another object has announced a change since the last call, since this object's own
    // last announcement and since Initialize.
    bool IsChanged();

protected:
    void OnMemoryCreated(void* block) override;
    void OnMemoryAttached(void* block) override;

private:
    TimeStampRecord lastSeen_;
};

}  // namespace Quorvel
