#include "multiprocess/SharedName.h"

#include <algorithm>

#include "quorvel/Exceptions.h"

namespace Quorvel {

// Initialize fails if a holder of the block's mutex died, and leaves the mutex with this thread.
// While a process fills the block, no other has it open, so a half-filled block disappears with the
// process and needs no repair. Once the mutex is released, another attempt can succeed.
const std::string& SharedName::Agree(const std::string& block, const std::string& proposal) {
    name_ = proposal;
    try {
        Initialize(block.c_str(), kBytes);
    } catch (const Win32APICallFailedException&) {
        Unlock();
        Initialize(block.c_str(), kBytes);
    }
    return name_;
}

void SharedName::OnMemoryCreated(void* block) {
    name_.copy(static_cast<char*>(block), kBytes - 1);
    OnMemoryAttached(block);
}

void SharedName::OnMemoryAttached(void* block) {
    const auto* const text = static_cast<const char*>(block);
    name_.assign(text, std::find(text, text + kBytes - 1, '\0'));
}

}  // namespace Quorvel
