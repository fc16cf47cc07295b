#pragma once

namespace EffectHost {

// From here on Ctrl-C and the like are requests to stop in an orderly way. Only the first is: the
// second ends the program at once.
void StopOnSignals();

// From here on the end of standard input is such a request, too: for a process whose parent says so
// by closing the pipe between them, or by dying.
void StopAtEndOfInput();

bool StopRequested();

}  // namespace EffectHost
