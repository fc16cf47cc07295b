#pragma once

namespace Quorvel::Testing {

// Makes the forms of operator new that don't throw return null while it lives.
class RefusedMemory {
public:
    RefusedMemory();
    RefusedMemory(const RefusedMemory&) = delete;
    RefusedMemory& operator=(const RefusedMemory&) = delete;
    ~RefusedMemory();
};

}  // namespace Quorvel::Testing
