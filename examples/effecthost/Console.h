#pragma once

#include <cstddef>

namespace EffectHost {

// Must be called before anything is opened. Redirects closed standard streams to the null device,
// so that no file gets their numbers and receives output. When the reader of a pipe exits, writing
// fails instead of ending the program.
void PrepareStandardStreams();

// True if standard output is a terminal.
bool StandardOutputIsTerminal();

// Columns of the terminal that shows standard output; 80 when unknown.
std::size_t TerminalWidth();

}  // namespace EffectHost
