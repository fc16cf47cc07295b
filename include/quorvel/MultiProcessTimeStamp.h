#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "quorvel/MultiProcessMemory.h"

namespace Quorvel {

// The whole content of a time stamp's shared block. It is a token that differs with every write,
// and is only compared; its time is never used.
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

    // Opens the stamp of that name or creates it. The current state of the resource counts as seen.
    // Always returns true; throws as MultiProcessMemory::Initialize does. Before Initialize,
    // updates go unnoticed and IsChanged returns false.
    bool Initialize(const char* name);

    // Announces a change of the resource to all other objects of this name.
    void UpdateTimeStamp();

    // True if another object has announced a change since this object last called IsChanged,
    // UpdateTimeStamp or Initialize.
    bool IsChanged();

protected:
    void OnMemoryCreated(void* block) override;
    void OnMemoryAttached(void* block) override;

private:
    TimeStampRecord lastSeen_;
};

}  // namespace Quorvel
