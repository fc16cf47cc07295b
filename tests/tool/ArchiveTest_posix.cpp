#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/SmallVolume.h"
#include "tool/ToolTest.h"

// export and import with devices, named pipes, links and small volumes, which Windows lacks or
// leaves to administrators.
namespace Quorvel::Tool {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class PosixArchiveTest : public ToolTest {
protected:
    ~PosixArchiveTest() override { ::unsetenv("TMPDIR"); }

    // Effects of 4 MiB.
    void MakeLargeCache() {
        std::vector<Format::NewEffect> effects;
        for (std::uint8_t i = 0; i < 4; ++i) {
            effects.push_back(
                {std::string(1, static_cast<char>('a' + i)), Format::Bytes(1 << 20, i)});
        }
        MakeCache(effects);
    }
};

TEST_F(PosixArchiveTest, AFullDeviceIsAFailureAndStaysADevice) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"export", cache_, "/dev/full"}), kFailed);
    EXPECT_THAT(err_, HasSubstr("/dev/full: the output can't be written: No space left on device"));
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST_F(PosixArchiveTest, AFolderThatCannotBeWrittenIsNamed) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"export", cache_, "/proc/a.tar"}), kFailed);
    EXPECT_THAT(err_, HasSubstr("/proc/a.tar: the output can't be written: "));
}

TEST_F(PosixArchiveTest, ANamedPipeIsWrittenInPlace) {
    MakeCache(ThreeEffects());
    const std::string pipe = File("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    fs::create_directory(File("other"));
    const pid_t child = ::fork();
    if (child == 0) { ::_exit(Run({"export", cache_, pipe})); }
    EXPECT_EQ(Run({"import", File("other"), pipe}), kDone) << err_;
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), kDone);
    EXPECT_EQ(Run({"diff", cache_, File("other"), "--time"}), kDone);
    EXPECT_TRUE(fs::is_fifo(pipe));
}

TEST_F(PosixArchiveTest, ALinkToAnArchiveStaysALink) {
    MakeCache(ThreeEffects());
    std::ofstream(File("real.tar")) << "old";
    fs::create_symlink("real.tar", File("link.tar"));
    EXPECT_EQ(Run({"export", cache_, File("link.tar")}), kDone);
    EXPECT_TRUE(fs::is_symlink(File("link.tar")));
    EXPECT_GT(fs::file_size(File("real.tar")), 1000U);
}

TEST_F(PosixArchiveTest, AFolderForTemporaryFilesThatCannotBeUsedIsNamed) {
    MakeCache(ThreeEffects());
    ASSERT_EQ(Run({"export", cache_, File("a.tar")}), kDone);
    const Format::Bytes before = FileBytes();
    ::setenv("TMPDIR", "/proc", 1);
    EXPECT_EQ(Run({"import", cache_, File("a.tar")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("/proc: a temporary file can't be created: "));
    ::setenv("TMPDIR", "/missing", 1);
    EXPECT_EQ(Run({"import", cache_, File("a.tar")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("the folder for temporary files can't be used: "));
    EXPECT_EQ(FileBytes(), before);
    EXPECT_EQ(Run({"import", cache_, File("a.tar"), "--dry-run"}), kDone) << err_;
}

TEST_F(PosixArchiveTest, FullVolumesAreFailuresThatChangeNothing) {
    const Testing::SmallVolume volume(3);
    if (volume.Error() == EPERM) { GTEST_SKIP() << "only root can mount a volume"; }
    ASSERT_EQ(volume.Error(), 0);
    MakeLargeCache();
    EXPECT_EQ(Run({"export", cache_, volume.Path() + "/a.tar"}), kFailed);
    EXPECT_THAT(err_, HasSubstr("a.tar: the output can't be written: No space left on device"));
    EXPECT_TRUE(fs::is_empty(volume.Path()));

    ASSERT_EQ(Run({"export", cache_, File("a.tar")}), kDone);
    fs::create_directory(File("other"));
    ::setenv("TMPDIR", volume.Path().c_str(), 1);
    EXPECT_EQ(Run({"import", File("other"), File("a.tar")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("a temporary file can't be written: No space left on device"));
    EXPECT_TRUE(fs::is_empty(File("other")));
}

}  // namespace
}  // namespace Quorvel::Tool
