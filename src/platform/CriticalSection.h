#pragma once

#include <cstddef>

namespace Quorvel::Platform {

// A recursive lock for the threads of one process.
class CriticalSection {
public:
    CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    ~CriticalSection();

    void Enter() noexcept;
    void Leave() noexcept;

private:
    // Storage for the system's object.
    alignas(std::max_align_t) std::byte storage_[48];
};

// Holds a critical section for the length of a scope.
class CriticalSectionGuard {
public:
    explicit CriticalSectionGuard(CriticalSection& section) noexcept : section_(section) {
        section_.Enter();
    }
    CriticalSectionGuard(const CriticalSectionGuard&) = delete;
    CriticalSectionGuard& operator=(const CriticalSectionGuard&) = delete;
    ~CriticalSectionGuard() { section_.Leave(); }

private:
    CriticalSection& section_;
};

}  // namespace Quorvel::Platform
