#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>

#include "Console.h"
#include "Progress.h"

namespace EffectHost {

// Opening a file takes the lowest free number.
void PrepareStandardStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) == -1) { open("/dev/null", O_RDWR); }
    }
    std::signal(SIGPIPE, SIG_IGN);
}

bool StandardOutputIsTerminal() {
    return isatty(STDOUT_FILENO) == 1;
}

std::size_t TerminalWidth() {
    winsize size{};
    const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size.ws_col : kUsualWidth;
}

}  // namespace EffectHost
