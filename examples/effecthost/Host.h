#pragma once

#include <iosfwd>

namespace EffectHost {

// The whole program. Output goes to out, errors to err; returns the exit code.
int RunHost(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace EffectHost
