// A cache on a volume that fills up.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>

#include "support/TemporaryDirectory.h"
#include "torture/Torture.h"

namespace Quorvel::Torture {

namespace {

// A volume of 8 MiB in memory, mounted on a temporary directory as long as the object lives.
class SmallVolume {
public:
    SmallVolume()
        : error_(::mount("none", Path().c_str(), "tmpfs", 0, "size=8m") == 0 ? 0 : errno) {}
    SmallVolume(const SmallVolume&) = delete;
    SmallVolume& operator=(const SmallVolume&) = delete;
    ~SmallVolume() {
        if (error_ == 0) { ::umount2(Path().c_str(), MNT_DETACH); }
    }

    std::string Path() const { return directory_.Path().string(); }
    int Error() const { return error_; }

private:
    Testing::TemporaryDirectory directory_;
    int error_;
};

TEST(TortureOfSmallVolume, ProcessesFindNoWrongBytesWhileItFillsUp) {
    const SmallVolume volume;
    if (volume.Error() != 0) {
        GTEST_SKIP() << "this user cannot mount a volume: " << std::strerror(volume.Error());
    }
    const Report report = RunTorture({.directory = volume.Path(),
                                      .seed = 12,
                                      .seconds = 4,
                                      .processes = 4,
                                      .fillsVolume = true});
    EXPECT_TRUE(report.IsGood()) << report;
}

}  // namespace

}  // namespace Quorvel::Torture
