#pragma once

#include <cstddef>

namespace EffectHost {

// To be called before anything is opened. A standard stream that the caller has closed leads
// nowhere from here on, so that no file gets its number and is printed into. Nor does a reader who
// leaves end the program: its output fails.
void PrepareStandardStreams();

// Whether somebody watches standard output.
bool StandardOutputIsTerminal();

// Columns of the terminal that shows standard output; 80 when it does not say.
std::size_t TerminalWidth();

}  // namespace EffectHost
