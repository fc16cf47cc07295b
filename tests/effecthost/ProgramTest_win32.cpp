// Situations that only Windows can create at will.
#include <gmock/gmock.h>

#include <cwctype>

#include "ProgramFixture.h"

namespace EffectHost {
namespace {

using ::testing::HasSubstr;

TEST_F(Program, ADirectoryWhoseNameIsNotInTheCodePageIsExitCode4) {
    cache_ = folder_.Path() / u8"\u6d1e\u7a74";
    std::filesystem::create_directory(cache_);
    const Result result = Run();
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_THAT(result.output, HasSubstr("not in the code page of this system"));
}

TEST_F(Program, CapitalsSlashesAndPrefixesDoNotChangeTheSpellingOfADirectory) {
    const std::filesystem::path spelling = FindCacheDirectory(cache_);
    std::wstring other = cache_.native();
    for (wchar_t& letter : other) {
        letter = letter == L'\\' ? L'/' : static_cast<wchar_t>(std::towupper(letter));
    }
    EXPECT_EQ(FindCacheDirectory(other), spelling);
    EXPECT_EQ(FindCacheDirectory(L"\\\\?\\" + cache_.native()), spelling);
}

TEST_F(Program, ACompilerThatCannotBeLoadedIsExitCode9) {
    const std::filesystem::path copies = folder_.Path() / "bin";
    std::filesystem::create_directory(copies);
    std::filesystem::copy_file(ProgramPath(), copies / "effecthost.exe");
    for (const auto& entry : std::filesystem::directory_iterator(ProgramPath().parent_path())) {
        if (entry.path().extension() == ".dll") {
            std::filesystem::copy_file(entry.path(), copies / entry.path().filename());
        }
    }
    std::ofstream(copies / "d3dcompiler_47.dll") << "no library";
    const Result result = RunOther(copies / "effecthost.exe",
                                   {"--cache", cache_.string(), "--effects", effects_.string()});
    EXPECT_EQ(result.exitCode, 9);
    EXPECT_THAT(result.output, HasSubstr("can't load d3dcompiler_47.dll"));
}

}  // namespace
}  // namespace EffectHost
