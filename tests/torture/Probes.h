#pragma once

#include <cstdint>

namespace Quorvel::Torture {

class Board;

// From now on the library in this process sees, on every volume, the free bytes that the board
// states, and the board records the moments that this slot's operations reach.
void Observe(Board& board, std::uint64_t slot);

// Marks an operation on the cache for its lifetime. One at a time.
class Operation {
public:
    enum class Kind {
        Create,  // opening a cache that has no file
        Load,    // opening or searching; needs a journal only to trim the file
        Save     // everything that may save
    };

    explicit Operation(Kind kind);
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    ~Operation();
};

}  // namespace Quorvel::Torture
