#include "faults/Failures.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ostream>

#include "faults/Figures.h"

namespace Quorvel::Testing {

void PrintTo(const Failure& failure, std::ostream* out) {
    *out << failure.name;
}

std::string NameOf(const Failure& failure) {
    return failure.name;
}

std::vector<Failure> AllFailures() {
    constexpr std::uint64_t kEvery = StdioFault::kEveryLaterCall;
    constexpr auto kOpen = StdioCall::Open;
    constexpr auto kClose = StdioCall::Close;
    constexpr auto kSeek = StdioCall::Seek;
    constexpr auto kTell = StdioCall::Tell;
    constexpr auto kRead = StdioCall::Read;
    constexpr auto kWrite = StdioCall::Write;
    constexpr auto kRemove = StdioCall::Remove;
    return {
        {"OneOpen", false, kOpen, EIO, 1, 0},
        {"TwoOpens", false, kOpen, ENOSPC, 2, 0},
        {"EveryOpen", false, kOpen, EIO, kEvery, 0},
        {"OneClose", false, kClose, ENOSPC, 1, 0},
        {"EveryClose", false, kClose, EIO, kEvery, 0},
        {"OneSeek", false, kSeek, EIO, 1, 0},
        {"EverySeek", false, kSeek, ENOSPC, kEvery, 0},
        {"OneTell", false, kTell, EIO, 1, 0},
        {"EveryTell", false, kTell, ENOSPC, kEvery, 0},
        {"OneRead", false, kRead, EIO, 1, 0},
        {"EveryRead", false, kRead, EIO, kEvery, 0},
        {"OneShortRead", false, kRead, 0, 1, 5000},
        {"EveryReadShort", false, kRead, EIO, kEvery, 5000},
        {"OneWriteEio", false, kWrite, EIO, 1, 0},
        {"OneWriteEnospc", false, kWrite, ENOSPC, 1, 0},
        {"EveryWriteEio", false, kWrite, EIO, kEvery, 0},
        {"EveryWriteEnospc", false, kWrite, ENOSPC, kEvery, 0},
        {"OneShortWrite", false, kWrite, ENOSPC, 1, 3000},
        {"EveryWriteShort", false, kWrite, ENOSPC, kEvery, 3000},
        {"OneRemove", false, kRemove, EACCES, 1, 0},
        {"EveryRemove", false, kRemove, EIO, kEvery, 0},
        {"OneAllocation", true, {}, 0, 1, 0},
        {"EveryAllocation", true, {}, 0, kEvery, 0},
    };
}

ArmedFailure::ArmedFailure(const Failure& failure, std::uint64_t skipped) {
    if (failure.isMemory) {
        memory_ = std::make_unique<MemoryFault>(skipped, failure.failures);
    } else {
        stdio_ = std::make_unique<StdioFault>(failure.call, failure.error, skipped,
                                              failure.failures, failure.bytesMoved);
    }
}

std::uint64_t ArmedFailure::Failures() const {
    return memory_ ? memory_->Failures() : stdio_->Failures();
}

void ForEachCall(const Failure& failure, const std::function<bool(std::uint64_t skipped)>& run) {
    Figures& figures = FiguresOfThisProgram();
    bool failed = true;
    for (std::uint64_t skipped = 0; failed; skipped += QUORVEL_FAULT_STRIDE) {
        SCOPED_TRACE("calls that succeed: " + std::to_string(skipped));
        failed = run(skipped);
        if (failed) { ++(failure.isMemory ? figures.allocationRuns : figures.callRuns); }
        ASSERT_FALSE(::testing::Test::HasFailure());
    }
}

}  // namespace Quorvel::Testing
