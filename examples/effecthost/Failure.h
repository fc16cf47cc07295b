#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace EffectHost {

// The start of every message.
constexpr std::string_view kMessagePrefix = "effecthost: ";

// The meaning of the program's exit code.
enum class ExitCode : int {
    Success = 0,
    InternalError = 1,       // something that should not happen
    BadUsage = 2,            // the command line
    BadEffects = 3,          // the effects folder, or a declaration in it
    NoCacheDirectory = 4,    // the cache directory does not exist, or can't be reached
    CompileError = 5,        // an effect does not compile
    UnusableCache = 6,       // the cache can't be opened, became inert, or lacks effects at the end
    VerificationFailed = 7,  // the cached bytes differ from the compiler's
    ProcessFailed = 8,       // one of several processes could not be started, or was killed
    NoCompiler = 9,          // the shader compiler can't be loaded
    OutputFailed = 10,       // the output or the listing can't be written
    Interrupted = 11,        // the program was asked to stop
};

// Ends the run: a message for the user, and the exit code that goes with it.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}

    ExitCode Code() const { return code_; }

private:
    ExitCode code_;
};

}  // namespace EffectHost
