#pragma once

#include <sys/mount.h>

#include <cerrno>
#include <string>

#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

// A volume in memory, on Linux, mounted on a temporary directory while the object exists. Only root
// may mount one.
class SmallVolume {
public:
    explicit SmallVolume(int mebibytes) {
        const std::string size = "size=" + std::to_string(mebibytes) + "m";
        error_ = ::mount("none", Path().c_str(), "tmpfs", 0, size.c_str()) == 0 ? 0 : errno;
    }
    SmallVolume(const SmallVolume&) = delete;
    SmallVolume& operator=(const SmallVolume&) = delete;
    ~SmallVolume() {
        if (error_ == 0) { ::umount2(Path().c_str(), MNT_DETACH); }
    }

    std::string Path() const { return directory_.Path().string(); }

    // The error of the attempt to mount the volume; 0 if it is mounted.
    int Error() const { return error_; }

private:
    TemporaryDirectory directory_;
    int error_;
};

}  // namespace Quorvel::Testing
