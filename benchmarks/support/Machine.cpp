#include "support/Machine.h"

#include <stdlib.h>
#include <sys/utsname.h>

#include <ctime>
#include <fstream>
#include <string>
#include <thread>

namespace Quorvel::Benchmarks {

namespace {

std::string ProcessorName() {
    std::ifstream lines("/proc/cpuinfo");
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("model name")) { return line.substr(line.find(':') + 2); }
    }
    return "unknown processor";
}

}  // namespace

nlohmann::ordered_json DescribeMachine() {
    utsname system{};
    ::uname(&system);
    const std::time_t now = std::time(nullptr);
    char date[16];
    std::strftime(date, sizeof date, "%Y-%m-%d", std::gmtime(&now));
    double load = 0;
    ::getloadavg(&load, 1);
    return {{"processor", ProcessorName()},
            {"cores", std::thread::hardware_concurrency()},
            {"system", std::string(system.sysname) + ' ' + system.release},
            {"compiler", __VERSION__},
            {"date", date},
            {"load", load}};
}

}  // namespace Quorvel::Benchmarks
