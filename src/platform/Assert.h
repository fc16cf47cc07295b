#pragma once

// Statements about the program itself, checked where QUORVEL_ASSERTIONS is defined: in debug,
// sanitizer and fuzzing builds, and in the objects that the tests link.
//
// QUORVEL_ASSERT(condition) is a precondition or an invariant. Without QUORVEL_ASSERTIONS the
// condition is not evaluated.
//
// QUORVEL_NEVER(condition) is the condition of a branch that only a bug could take. It is checked
// to be false; a release build keeps the branch as a second line of defence and lays it out as
// unlikely.
#if defined(QUORVEL_ASSERTIONS)
#define QUORVEL_ASSERT(condition)       \
    ((condition) ? static_cast<void>(0) \
                 : ::Quorvel::Platform::AssertionFailed(#condition, __FILE__, __LINE__))
#define QUORVEL_NEVER(condition) \
    ((condition) &&              \
     (::Quorvel::Platform::AssertionFailed("never: " #condition, __FILE__, __LINE__), true))
#else
#define QUORVEL_ASSERT(condition) static_cast<void>(sizeof((condition) ? 1 : 0))
#if defined(__GNUC__)
#define QUORVEL_NEVER(condition) (__builtin_expect(static_cast<bool>(condition), false))
#else
#define QUORVEL_NEVER(condition) (condition)
#endif
#endif

namespace Quorvel::Platform {

// Writes what failed, and where, to standard error and ends the process.
[[noreturn]] void AssertionFailed(const char* condition, const char* file, int line) noexcept;

}  // namespace Quorvel::Platform
