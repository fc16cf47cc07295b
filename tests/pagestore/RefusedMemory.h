#pragma once

namespace Quorvel::Testing {

// While it exists, operator new with std::nothrow returns null in the calling thread.
class RefusedMemory {
public:
    RefusedMemory();
    RefusedMemory(const RefusedMemory&) = delete;
    RefusedMemory& operator=(const RefusedMemory&) = delete;
    ~RefusedMemory();
};

}  // namespace Quorvel::Testing
