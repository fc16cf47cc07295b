#include <windows.h>

#include <cstdlib>
#include <filesystem>

#include "tool/ToolTest.h"

// import, where Windows keeps temporary files.
namespace Quorvel::Tool {
namespace {

using testing::HasSubstr;

class WindowsArchiveTest : public ToolTest {
protected:
    ~WindowsArchiveTest() override { UseTemporaryFolder(folder_); }

    static void UseTemporaryFolder(const std::string& folder) {
        ::SetEnvironmentVariableA("TMP", folder.c_str());
    }

private:
    const std::string folder_ = std::getenv("TMP");
};

TEST_F(WindowsArchiveTest, AFolderForTemporaryFilesThatCannotBeUsedIsNamed) {
    MakeCache(ThreeEffects());
    ASSERT_EQ(Run({"export", cache_, File("a.tar")}), kDone);
    const Format::Bytes before = FileBytes();
    UseTemporaryFolder(File("missing"));
    EXPECT_EQ(Run({"import", cache_, File("a.tar")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("the folder for temporary files can't be used: "));
    EXPECT_THAT(err_, HasSubstr("or TMP on Windows"));
    EXPECT_EQ(FileBytes(), before);
}

TEST_F(WindowsArchiveTest, TemporaryFilesAreGoneAfterwardsAndMayLieInAnyFolder) {
    MakeCache(ThreeEffects());
    ASSERT_EQ(Run({"export", cache_, File("a.tar")}), kDone);
    const std::filesystem::path folder = directory_.Path() / u8"\u00FC \u6D1E";
    std::filesystem::create_directory(folder);
    UseTemporaryFolder(folder.string());
    EXPECT_EQ(Run({"import", cache_, File("a.tar")}), kDone) << err_;
    EXPECT_TRUE(std::filesystem::is_empty(folder));
}

}  // namespace
}  // namespace Quorvel::Tool
