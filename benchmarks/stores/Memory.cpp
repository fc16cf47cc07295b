#include "stores/Memory.h"

#include <malloc.h>

#include <algorithm>
#include <fstream>
#include <string>

namespace Quorvel::Benchmarks {

namespace {

std::uint64_t StatusField(const std::string& wanted) {
    std::ifstream status("/proc/self/status");
    std::string field;
    while (status >> field) {
        if (field == wanted) {
            std::uint64_t kilobytes = 0;
            status >> kilobytes;
            return kilobytes * 1024;
        }
    }
    return 0;
}

}  // namespace

ResidentMemory CurrentMemory() {
    return {StatusField("VmRSS:"), StatusField("RssAnon:")};
}

// Returns the heap's free memory to the system first, so that using it again counts as growth.
// Writing 5 resets the kernel's peak.
MemoryPeak::MemoryPeak() {
    ::malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << '5';
    start_ = CurrentMemory();
    heapPeak_ = start_.heap;
}

void MemoryPeak::Sample() {
    heapPeak_ = std::max(heapPeak_, StatusField("RssAnon:"));
}

ResidentMemory MemoryPeak::Peak() {
    Sample();
    const std::uint64_t all = std::max(StatusField("VmHWM:"), start_.all);
    return {all - start_.all, heapPeak_ - start_.heap};
}

}  // namespace Quorvel::Benchmarks
