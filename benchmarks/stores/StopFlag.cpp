#include "stores/StopFlag.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Quorvel::Benchmarks {

StopFlag::StopFlag(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    void* view = MAP_FAILED;
    if (descriptor >= 0 && ::ftruncate(descriptor, sizeof *flag_) == 0) {
        view = ::mmap(nullptr, sizeof *flag_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    }
    const int error = errno;
    ::close(descriptor);
    if (view == MAP_FAILED) { throw std::system_error(error, std::generic_category(), path); }
    flag_ = static_cast<std::atomic<int>*>(view);
}

StopFlag::~StopFlag() {
    ::munmap(flag_, sizeof *flag_);
}

}  // namespace Quorvel::Benchmarks
