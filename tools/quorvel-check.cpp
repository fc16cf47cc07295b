#include <iostream>

#include "tools/Tools.h"

int main(int argc, char** argv) {
    return Quorvel::Tools::CheckTool(argc, argv, std::cout, std::cerr);
}
