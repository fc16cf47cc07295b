#pragma once

#include <cstdint>
#include <vector>

namespace Quorvel::Testing {

// The stdio functions that the page store calls.
enum class StdioCall { Open, Close, Seek, Tell, Read, Write };

// Makes the library's own calls of the standard I/O functions fail while it lives. Only programs
// whose calls go through the linker's --wrap see it, and only one may live at a time. Calls of the
// test itself are counted and failed as well; calls on the three standard streams never are.
//
// A call that fails returns what the real function returns on failure: null, EOF, -1 or no items.
// It does nothing before, except that a failing close does close the file.
class StdioFault {
public:
    static constexpr std::uint64_t kEveryLaterCall = ~std::uint64_t{0};

    // Lets the first `skipped` calls of a kind through, then fails the next `failures` of them with
    // errno set to `error`. A read or write that fails still moves its first `bytesMoved` bytes and
    // returns how many whole items these are.
    StdioFault(StdioCall call, int error, std::uint64_t skipped = 0,
               std::uint64_t failures = kEveryLaterCall, std::uint64_t bytesMoved = 0);
    StdioFault(const StdioFault&) = delete;
    StdioFault& operator=(const StdioFault&) = delete;
    ~StdioFault();

    // How many calls of the kind were made and how many of them failed, since construction.
    std::uint64_t Calls() const;
    std::uint64_t Failures() const;
};

// Numbers of calls of every kind, failed ones included, of the bytes that reads and writes moved,
// and of the files that are open now.
struct StdioCounts {
    std::uint64_t opens = 0;
    std::uint64_t closes = 0;
    std::uint64_t seeks = 0;
    std::uint64_t tells = 0;
    std::uint64_t reads = 0;
    std::uint64_t writes = 0;
    std::uint64_t bytesRead = 0;
    std::uint64_t bytesWritten = 0;
    std::uint64_t openFiles = 0;  // opened and not closed
};

// The counts since the program started.
StdioCounts CountStdioCalls();

// A read or a write that moved all that it was asked for.
struct StdioTransfer {
    enum class Kind { Read, Write };
    Kind kind;
    std::uint64_t offset;  // in the file
    std::uint64_t size;    // in bytes

    friend bool operator==(const StdioTransfer&, const StdioTransfer&) = default;
};

// Records the transfers of the thread that made it while it lives; one a thread.
class StdioTrace {
public:
    StdioTrace();
    StdioTrace(const StdioTrace&) = delete;
    StdioTrace& operator=(const StdioTrace&) = delete;
    ~StdioTrace();

    // What was recorded since the last call.
    std::vector<StdioTransfer> Take();

private:
    std::vector<StdioTransfer> transfers_;
};

}  // namespace Quorvel::Testing
