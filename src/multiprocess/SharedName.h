#pragma once

#include <cstdint>
#include <string>

#include "quorvel/MultiProcessMemory.h"

namespace Quorvel {

// A name that processes agree on: the proposal of a block's first holder. Every later holder adopts
// it for as long as the block exists, even if the first one is gone.
class SharedName : public MultiProcessMemory {
public:
    // Opens or creates the block and returns the name in force, at most 4095 bytes of it. Throws
    // Win32APICallFailedException, OutOfMemoryException, std::bad_alloc.
    const std::string& Agree(const std::string& block, const std::string& proposal);

private:
    static constexpr std::uint64_t kBytes = 4096;

    void OnMemoryCreated(void* block) override;
    void OnMemoryAttached(void* block) override;

    std::string name_;
};

}  // namespace Quorvel
