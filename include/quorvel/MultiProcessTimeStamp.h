#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "quorvel/MultiProcessMemory.h"

namespace Quorvel {

/// The whole content of a time stamp's shared block. It is a token that differs with every write,
/// and is only compared; its time is never used.
struct TimeStampRecord {
    std::int64_t seconds;   ///< since 1970-01-01 UTC
    std::int64_t counter;   ///< the performance counter
    std::uint32_t random;   ///< a pseudo-random number
    std::uint32_t process;  ///< id of the process that wrote the stamp
};
static_assert(sizeof(TimeStampRecord) == 24);

/// Tells processes that share a resource when one of them has changed it.
///
/// One thread at a time may use an object. Objects with the same name are independent.
class QUORVEL_API MultiProcessTimeStamp : public MultiProcessMemory {
public:
    /// Has no stamp yet.
    MultiProcessTimeStamp() noexcept;
    ~MultiProcessTimeStamp() override;

    /// Opens the stamp of that name or creates it. The current state of the resource counts as
    /// seen. Before this, updates go unnoticed and IsChanged() returns false.
    ///
    /// @param name  Name of the stamp, NUL-terminated.
    /// @return Always true.
    /// @throws Win32APICallFailedException as MultiProcessMemory::Initialize
    /// @throws OutOfMemoryException as MultiProcessMemory::Initialize
    bool Initialize(const char* name);

    /// Announces a change of the resource to all other objects of this name.
    void UpdateTimeStamp();

    /// @return True if another object has announced a change since this object last called
    ///         IsChanged(), UpdateTimeStamp() or Initialize().
    bool IsChanged();

protected:
    void OnMemoryCreated(void* block) override;
    void OnMemoryAttached(void* block) override;

private:
    TimeStampRecord lastSeen_;
};

}  // namespace Quorvel
