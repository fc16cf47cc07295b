#pragma once

#include <utility>

namespace Quorvel::Platform {

// Undoes a step at the end of its scope, unless everything after the step succeeded and called
// Dismiss. The undo step must not throw.
template <typename Undo>
class ScopeGuard {
public:
    explicit ScopeGuard(Undo undo) : undo_(std::move(undo)) {}
    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;
    ~ScopeGuard() {
        if (isArmed_) { undo_(); }
    }

    void Dismiss() { isArmed_ = false; }

private:
    Undo undo_;
    bool isArmed_ = true;
};

}  // namespace Quorvel::Platform
