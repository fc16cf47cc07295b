#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/Clock.h"

// Stand-ins for services of the platform, as the library's own calls see them. Each works while it
// lives, and only one of a kind may live at a time; without one the real service answers.
namespace Quorvel::Testing {

// Says how much of the volume is free.
class FreeSpaceStub {
public:
    explicit FreeSpaceStub(std::uint64_t bytes);
    FreeSpaceStub(const FreeSpaceStub&) = delete;
    FreeSpaceStub& operator=(const FreeSpaceStub&) = delete;
    ~FreeSpaceStub();

    void Set(std::uint64_t bytes) { bytes_ = bytes; }

    // From now on the system does not say.
    void Fail() { fails_ = true; }

    // Called at every query, before it is answered.
    void OnQuery(std::function<void()> hook) { hook_ = std::move(hook); }

    // The directories that were asked for, unless they are no longer to be kept.
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

// Has the system refuse one attempt to open or make a named mutex, after so many others.
class NamedMutexFault {
public:
    explicit NamedMutexFault(int skipped);
    NamedMutexFault(const NamedMutexFault&) = delete;
    NamedMutexFault& operator=(const NamedMutexFault&) = delete;
    ~NamedMutexFault();

    bool Fails() { return skipped_-- == 0; }

private:
    int skipped_;
};

}  // namespace Quorvel::Testing
