#pragma once

#include <cstdint>

namespace Quorvel::Torture {

class Board;

// From now on the library in this process finds the free bytes that the board says on every volume,
// and the board learns the moments that it reaches in operations of this slot.
void Observe(Board& board, std::uint64_t slot);

// An operation on the cache, while it lives. One at a time.
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
