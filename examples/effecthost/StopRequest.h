#pragma once

namespace EffectHost {

// Makes the first Ctrl-C or similar signal a request to stop in an orderly way. A second one ends
// the program at once.
void StopOnSignals();

// Makes the end of standard input such a request too: a parent process makes it by closing the pipe
// or by ending.
void StopAtEndOfInput();

bool StopRequested();

}  // namespace EffectHost
