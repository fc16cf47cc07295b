#include <gtest/gtest.h>

#include "pagestore/Fakes.h"
#include "pagestore/FilePageCache.h"
#include "quorvel/Exceptions.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

class PageRefTest : public ::testing::Test {
protected:
    PageRefTest() {
        WriteFile(path_, content_);
        cache_.Open(path_.c_str(), 1);
    }

    // True if nothing is pinned. The cache has capacity for only one page.
    bool NothingIsPinned() {
        const bool free = cache_.GetPageForRead(12) != nullptr;
        if (free) { cache_.ReleasePageForRead(12); }
        return free;
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.File("pages");
    const Bytes content_ = PatternBytes(3 * kPageSize);
    FilePageCache cache_{directory_.File("unused").c_str(), 1};
};

}  // namespace

TEST_F(PageRefTest, HoldsNothingAtFirst) {
    const PageRef page(&cache_);
    EXPECT_EQ(page.Data(), nullptr);
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(PageRefTest, PinsAPageForReadingUntilItDies) {
    {
        PageRef page(&cache_);
        page.SetReadPage(11);
        EXPECT_EQ(PageBytes(page.Data()), Slice(content_, 8192, 8192));
        EXPECT_EQ(FieldAt<std::uint8_t>(page.Data() - 1, 0), 0);  // not dirty
        EXPECT_FALSE(NothingIsPinned());
    }
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(PageRefTest, PinsAPageForWritingUntilItDies) {
    {
        PageRef page(&cache_);
        page.SetWritePage(14);
        EXPECT_EQ(PageBytes(page.Data()), Bytes(8192));
        EXPECT_EQ(FieldAt<std::uint8_t>(page.Data() - 1, 0), 1);  // dirty
        EXPECT_EQ(std::filesystem::file_size(path_), 5u * 8192u);
        EXPECT_FALSE(NothingIsPinned());
    }
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(PageRefTest, SettingAnotherPageReleasesTheFirst) {
    PageRef page(&cache_);
    page.SetReadPage(10);
    page.SetReadPage(11);
    EXPECT_EQ(PageBytes(page.Data()), Slice(content_, 8192, 8192));
    page.SetWritePage(10);
    EXPECT_EQ(PageBytes(page.Data()), Slice(content_, 0, 8192));
    page.SetReadPage(11);
    EXPECT_EQ(PageBytes(page.Data()), Slice(content_, 8192, 8192));
}

TEST_F(PageRefTest, EitherReleaseUnpinsReadAndWritePages) {
    PageRef page(&cache_);
    page.SetReadPage(10);
    page.ReleaseWritePage();
    EXPECT_EQ(page.Data(), nullptr);
    EXPECT_TRUE(NothingIsPinned());
    page.SetWritePage(10);
    page.ReleaseReadPage();
    EXPECT_EQ(page.Data(), nullptr);
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(PageRefTest, ReleasingTwiceReleasesOnePin) {
    ASSERT_NE(cache_.GetPageForRead(10), nullptr);
    PageRef page(&cache_);
    page.SetReadPage(10);
    page.ReleaseReadPage();
    page.ReleaseReadPage();
    EXPECT_FALSE(NothingIsPinned());
    cache_.ReleasePageForRead(10);
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(PageRefTest, HoldsNothingAfterAnInvalidNumber) {
    PageRef page(&cache_);
    for (const std::uint64_t invalid : Numbers{0, 9, 0x100000}) {
        page.SetReadPage(10);
        page.SetReadPage(invalid);
        EXPECT_EQ(page.Data(), nullptr);
        EXPECT_TRUE(NothingIsPinned());
        page.SetWritePage(10);
        page.SetWritePage(invalid);
        EXPECT_EQ(page.Data(), nullptr);
        EXPECT_TRUE(NothingIsPinned());
    }
}

TEST_F(PageRefTest, HoldsNothingWhenTheCacheIsFullOfPinnedPages) {
    ASSERT_NE(cache_.GetPageForRead(10), nullptr);
    PageRef page(&cache_);
    page.SetReadPage(11);
    EXPECT_EQ(page.Data(), nullptr);
    page.SetWritePage(11);
    EXPECT_EQ(page.Data(), nullptr);
    page.ReleaseReadPage();
    EXPECT_FALSE(NothingIsPinned());
}

TEST_F(PageRefTest, HoldsNothingAfterTheCacheThrew) {
    PageRef page(&cache_);
    page.SetReadPage(10);
    EXPECT_THROW(page.SetReadPage(13), FileIOException);
    EXPECT_EQ(page.Data(), nullptr);
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(PageRefTest, RecordsTheNumberEvenIfItGetsNoPage) {
    PageRef page(&cache_);
    page.SetReadPage(0x100000);
    EXPECT_EQ(page.Data(), nullptr);
    EXPECT_EQ(FieldAt<std::uint64_t>(&page, 16), 0x100000u);
}

TEST_F(PageRefTest, KeepsCacheDataAndNumberInThisOrder) {
    static_assert(sizeof(PageRef) == 24);
    PageRef page(&cache_);
    page.SetReadPage(11);
    EXPECT_EQ(FieldAt<FilePageCache*>(&page, 0), &cache_);
    EXPECT_EQ(FieldAt<std::uint8_t*>(&page, 8), page.Data());
    EXPECT_EQ(FieldAt<std::uint64_t>(&page, 16), 11u);
    page.ReleaseReadPage();
    EXPECT_EQ(FieldAt<std::uint8_t*>(&page, 8), nullptr);
    EXPECT_EQ(FieldAt<std::uint64_t>(&page, 16), 0u);
}

}  // namespace Quorvel::Testing
