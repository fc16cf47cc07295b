#include <iostream>

#include "Host.h"

int main(int argc, char** argv) {
    return EffectHost::RunHost(argc, argv, std::cout, std::cerr);
}
