// A cache on a volume that fills up.
#include <gtest/gtest.h>

#include <cstring>

#include "support/SmallVolume.h"
#include "torture/Torture.h"

namespace Quorvel::Torture {

namespace {

TEST(TortureOfSmallVolume, ProcessesFindNoWrongBytesWhileItFillsUp) {
    const Testing::SmallVolume volume(8);
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
