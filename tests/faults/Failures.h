#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "faults/Memory.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

// A way in which one kind of call fails: of the calls in a row, some go through, then so many fail.
struct Failure {
    const char* name;
    bool isMemory;  // allocations fail; otherwise calls of `call`
    StdioCall call;
    int error;
    std::uint64_t failures;
    std::uint64_t bytesMoved;

    // Whether a file that could not be opened may be created instead, which empties it. The page
    // cache tries both ways in turn: so it goes when just one attempt to open fails.
    bool MayEmptyFile() const {
        return !isMemory && call == StdioCall::Open && failures % 2 == 1 &&
               failures != StdioFault::kEveryLaterCall;
    }
};
void PrintTo(const Failure& failure, std::ostream* out);
std::string NameOf(const Failure& failure);

// Every way, for INSTANTIATE_TEST_SUITE_P.
std::vector<Failure> AllFailures();

// Makes calls fail while it lives, after the first `skipped` of their kind.
class ArmedFailure {
public:
    ArmedFailure(const Failure& failure, std::uint64_t skipped);

    bool HasFailed() const { return Failures() != 0; }
    std::uint64_t Failures() const;

private:
    std::unique_ptr<StdioFault> stdio_;
    std::unique_ptr<MemoryFault> memory_;
};

// Runs with the first call of the kind failing, then with the second one, and so on, until a run
// says that none failed any more. Where calls are slow only every so manieth run is made.
void ForEachCall(const Failure& failure, const std::function<bool(std::uint64_t skipped)>& run);

}  // namespace Quorvel::Testing
