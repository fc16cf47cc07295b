#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/Clock.h"

// Replacements for platform services that the library calls. A stub is active while it exists; only
// one of each kind may exist at a time. Without a stub the real service answers.
namespace Quorvel::Testing {

// Sets the free bytes of the volume.
class FreeSpaceStub {
public:
    explicit FreeSpaceStub(std::uint64_t bytes);
    FreeSpaceStub(const FreeSpaceStub&) = delete;
    FreeSpaceStub& operator=(const FreeSpaceStub&) = delete;
    ~FreeSpaceStub();

    void Set(std::uint64_t bytes) { bytes_ = bytes; }

    // Makes all later queries fail.
    void Fail() { fails_ = true; }

    // The hook is called at every query, before the answer.
    void OnQuery(std::function<void()> hook) { hook_ = std::move(hook); }

    // The queried directories, recorded until ForgetQueries is called.
    const std::vector<std::string>& Queries() const { return queries_; }
    void ForgetQueries() { keepsQueries_ = false; }

    bool Answer(const char* directory, std::uint64_t& bytes);

private:
    std::uint64_t bytes_;
    bool fails_ = false;
    bool keepsQueries_ = true;
    std::function<void()> hook_;
    std::vector<std::string> queries_;
};

// Stops the local time.
class ClockStub {
public:
    explicit ClockStub(const Platform::LocalTime& time);
    ClockStub(const ClockStub&) = delete;
    ClockStub& operator=(const ClockStub&) = delete;
    ~ClockStub();

    void Set(const Platform::LocalTime& time) { time_ = time; }
    const Platform::LocalTime& Time() const { return time_; }

private:
    Platform::LocalTime time_;
};

// Makes attempts to open or create a named mutex fail, after `skipped` that succeed.
class NamedMutexFault {
public:
    explicit NamedMutexFault(int skipped, int failures = 1);
    NamedMutexFault(const NamedMutexFault&) = delete;
    NamedMutexFault& operator=(const NamedMutexFault&) = delete;
    ~NamedMutexFault();

    bool Fails() { return skipped_-- <= 0 && failures_-- > 0; }

private:
    int skipped_;
    int failures_;
};

}  // namespace Quorvel::Testing
