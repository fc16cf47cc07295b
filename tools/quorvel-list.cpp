#include <iostream>

#include "tools/Tools.h"

int main(int argc, char** argv) {
    return Quorvel::Tools::ListTool(argc, argv, std::cout, std::cerr);
}
