#include <windows.h>

#include "Console.h"
#include "Progress.h"

namespace EffectHost {

// On Windows, a new file does not take the place of a closed stream.
void PrepareStandardStreams() {}

bool StandardOutputIsTerminal() {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

std::size_t TerminalWidth() {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    const bool isKnown = GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info) != 0 &&
                         info.dwSize.X > 0;
    return isKnown ? static_cast<std::size_t>(info.dwSize.X) : kUsualWidth;
}

}  // namespace EffectHost
