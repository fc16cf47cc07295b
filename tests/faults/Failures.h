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

// A way in which one kind of call fails: the first calls succeed, the next `failures` fail.
struct Failure {
    const char* name;
    bool isMemory;  // allocations fail; otherwise calls of `call`
    StdioCall call;
    int error;
    std::uint64_t failures;
    std::uint64_t bytesMoved;

    // True if a file that could not be opened may be created instead, which empties it. The page
    // cache first tries to open a file and then to create it, so a single failure is enough.
    bool MayEmptyFile() const {
        return !isMemory && call == StdioCall::Open && failures % 2 == 1 &&
               failures != StdioFault::kEveryLaterCall;
    }

    // True if a file may seem to be unreadable, in whole or in part.
    bool MayHideFile() const {
        return isMemory || call == StdioCall::Open || call == StdioCall::Seek ||
               call == StdioCall::Tell || call == StdioCall::Read;
    }
};
void PrintTo(const Failure& failure, std::ostream* out);
std::string NameOf(const Failure& failure);

// All failures, for INSTANTIATE_TEST_SUITE_P.
std::vector<Failure> AllFailures();

// Makes calls fail while it exists, after the first `skipped` of their kind.
class ArmedFailure {
public:
    ArmedFailure(const Failure& failure, std::uint64_t skipped);

    bool HasFailed() const { return Failures() != 0; }
    std::uint64_t Failures() const;

private:
    std::unique_ptr<StdioFault> stdio_;
    std::unique_ptr<MemoryFault> memory_;
};

// Runs with the first call of the kind failing, then with the second, and so on, until `run`
// returns false because no call failed. Only every QUORVEL_FAULT_STRIDE-th run is made.
void ForEachCall(const Failure& failure, const std::function<bool(std::uint64_t skipped)>& run);

}  // namespace Quorvel::Testing
