#include <iostream>

#include "tools/quorvel/Program.h"
#include "tools/quorvel/Terminal.h"

int main(int argc, char** argv) {
    Quorvel::Tool::PrepareStandardStreams();
    Quorvel::Tool::CatchStopRequests();
    return Quorvel::Tool::RunProgram(
        argc, argv,
        {std::cin, std::cout, std::cerr, Quorvel::Tool::IsErrorTerminal(),
         Quorvel::Tool::IsOutputTerminal()});
}
