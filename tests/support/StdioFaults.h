#pragma once

#include <cstdint>
#include <vector>

namespace Quorvel::Testing {

// The stdio functions that the page store calls.
// Open stands for fopen and fdopen.
enum class StdioCall { Open, Close, Seek, Tell, Read, Write, Remove };

// While it exists, makes the program's calls of one standard I/O function fail, those of the test
// included. Works only in programs that are linked with --wrap. Only one may exist at a time. Calls
// on the three standard streams neither fail nor count.
//
// A failing call returns what the real function returns on failure: null, EOF, -1 or no items. It
// has no effect, except that a failing close does close the file.
class StdioFault {
public:
    static constexpr std::uint64_t kEveryLaterCall = ~std::uint64_t{0};

    // Lets the first `skipped` calls of a kind through; the next `failures` calls fail and set
    // errno to `error`. A failing read or write still moves its first `bytesMoved` bytes and
    // returns the number of whole items in them.
    StdioFault(StdioCall call, int error, std::uint64_t skipped = 0,
               std::uint64_t failures = kEveryLaterCall, std::uint64_t bytesMoved = 0);
    StdioFault(const StdioFault&) = delete;
    StdioFault& operator=(const StdioFault&) = delete;
    ~StdioFault();

    // Numbers of calls of the kind, and of failed ones, since construction.
    std::uint64_t Calls() const;
    std::uint64_t Failures() const;
};

// Numbers of calls of each kind, including failed ones, of bytes read and written, and of open
// files.
struct StdioCounts {
    std::uint64_t opens = 0;
    std::uint64_t closes = 0;
    std::uint64_t seeks = 0;
    std::uint64_t tells = 0;
    std::uint64_t reads = 0;
    std::uint64_t writes = 0;
    std::uint64_t bytesRead = 0;
    std::uint64_t bytesWritten = 0;
    std::uint64_t openFiles = 0;
};

// The counts since the program started.
StdioCounts CountStdioCalls();

// A read or write that moved everything that was asked for.
struct StdioTransfer {
    enum class Kind { Read, Write };
    Kind kind;
    std::uint64_t offset;  // in the file
    std::uint64_t size;    // in bytes

    friend bool operator==(const StdioTransfer&, const StdioTransfer&) = default;
};

// While it exists, records the transfers of the thread that created it; one per thread.
class StdioTrace {
public:
    StdioTrace();
    StdioTrace(const StdioTrace&) = delete;
    StdioTrace& operator=(const StdioTrace&) = delete;
    ~StdioTrace();

    // The transfers since the last call.
    std::vector<StdioTransfer> Take();

private:
    std::vector<StdioTransfer> transfers_;
};

}  // namespace Quorvel::Testing
