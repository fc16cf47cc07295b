#include <filesystem>
#include <thread>

#include "effectcache/SharedCache.h"
#include "tool/ToolTest.h"

// Spellings of caches and other files.
namespace Quorvel::Tool {
namespace {

namespace fs = std::filesystem;

class PathTest : public ToolTest {};

TEST_F(PathTest, MayHoldLettersOfAnyLanguage) {
    const fs::path folder = directory_.Path() / u8"\u00FC \u6D1E";
    const std::string cache = (folder / u8"\u00E4").string();
    const std::string other = (folder / u8"\u7A74").string();
    const std::string archive = (folder / u8"\u00E4.tar.gz").string();
    const std::string output = (folder / u8"\u00F6").string();
    fs::create_directories(folder / u8"\u00E4");
    fs::create_directory(folder / u8"\u7A74");
    const std::string file = (folder / u8"\u00E4" / "vornFxoCache.dat").string();
    Format::WriteWholeFile(output, {1, 2, 3});
    const std::vector<std::string> commands[] = {
        {"put", cache, "\xC3\xA4", output},
        {"get", cache, "\xC3\xA4", "-o", output},
        {"set", cache, "\xC3\xA4", "--permanent"},
        {"check", cache, file},
        {"list", cache, "--offline"},
        {"export", cache, archive},
        {"import", other, archive},
        {"diff", cache, other},
        {"merge", other, cache},
        {"prune", other, "--max-effects", "1"},
        {"map", cache, "-o", output},
        {"watch", cache, "--count", "1"},
        {"compact", cache},
        {"clear", other, "--yes"},
        {"salvage", file, other},
    };
    for (const std::vector<std::string>& command : commands) {
        EXPECT_EQ(Run(command), kDone) << command[0] << ": " << err_;
    }
    EXPECT_EQ(RunJson({"info", cache})["path"], file);
    EXPECT_EQ(Run({"get", other, "\xC3\xA4"}), kDone);
    EXPECT_EQ(out_, "\x01\x02\x03");
    std::vector<fs::path> names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        names.push_back(entry.path().lexically_relative(folder));
    }
    EXPECT_THAT(names,
                testing::UnorderedElementsAre(u8"\u00E4", fs::path(u8"\u00E4") / "vornFxoCache.dat",
                                              u8"\u7A74", fs::path(u8"\u7A74") / "vornFxoCache.dat",
                                              u8"\u00E4.tar.gz", u8"\u00F6"));
}

TEST_F(PathTest, OfADirectoryMayEndInASeparator) {
    MakeCache(ThreeEffects());
    for (const char* separator : {"/", "//", "/."}) {
        EXPECT_EQ(Run({"list", cache_ + separator}), kDone) << err_;
        EXPECT_EQ(Run({"compact", cache_ + separator}), kDone) << err_;
    }
}

TEST_F(PathTest, OfTheCachesFileMeansTheSharedCacheInEverySpelling) {
    MakeCache(ThreeEffects());
    std::vector<std::string> spellings = {CacheFile(), File("link")};
    fs::create_hard_link(CacheFile(), File("link"));
    // On Windows, a name in capitals denotes the same file.
    if (fs::exists(File("VORNFXOCACHE.DAT"))) { spellings.push_back(File("VORNFXOCACHE.DAT")); }
    SharedCache shared(cache_.c_str());
    ASSERT_EQ(shared.Mutex().Acquire(0), kWaitAcquired);
    std::thread([&] {
        for (const std::string& spelling : spellings) {
            EXPECT_EQ(Run({"remove", spelling, "a", "--timeout", "0"}), kFailed) << spelling;
            EXPECT_THAT(err_, testing::HasSubstr("another process has held the cache's lock"));
        }
    }).join();
    shared.Mutex().Release();
    EXPECT_EQ(Run({"remove", spellings.back(), "a"}), kDone) << err_;
}

}  // namespace
}  // namespace Quorvel::Tool
