#pragma once

#include <istream>
#include <ostream>

namespace Quorvel::Tool {

struct Streams {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    bool isErrTerminal = false;
    bool isOutTerminal = false;
};

// The program "quorvel". Returns its exit code.
int RunProgram(int argc, const char* const* argv, const Streams& streams);

}  // namespace Quorvel::Tool
