#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "pagestore/FilePageCache.h"
#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"
#include "transfers/PageCacheModel.h"

namespace Quorvel::Testing {

namespace {

class PageCacheTransfers : public ::testing::TestWithParam<std::uint64_t> {};

// Random pages, mostly from a small set, some pinned for a while. After each step the cache must
// have made exactly the transfers of the model, in the same order.
TEST_P(PageCacheTransfers, MatchTheModelAtEachStep) {
    const TemporaryDirectory directory;
    std::minstd_rand random(5);
    FilePageCache cache(directory.File("pages").c_str(), GetParam());
    PageCacheModel model(GetParam(), 0);
    std::vector<std::uint64_t> pinned;
    std::uint64_t end = 10;  // one past the last page of the file
    StdioTrace trace;
    const auto ensure = [&](std::uint64_t page) {
        cache.EnsurePageInFile(page);
        model.Ensure(page);
        end = std::max(end, page + 1);
    };
    ensure(14);
    for (int step = 0; step < 6000; ++step) {
        const std::uint64_t choice = random() % 20;
        const std::uint64_t span =
            random() % 4 == 0 ? end - 10 : std::min<std::uint64_t>(end - 10, 6);
        const std::uint64_t page = 10 + random() % span;
        if (choice == 0) {
            ensure(10 + random() % 300);
        } else if (choice < 8 && !pinned.empty()) {
            const std::size_t index = random() % pinned.size();
            cache.ReleasePageForRead(pinned[index]);
            model.Release(pinned[index]);
            pinned.erase(pinned.begin() + static_cast<std::ptrdiff_t>(index));
        } else if (choice < 14) {
            const bool isThere = cache.GetPageForRead(page) != nullptr;
            ASSERT_EQ(isThere, model.Get(page, false)) << step;
            if (isThere) { pinned.push_back(page); }
        } else {
            const std::uint64_t written = choice == 19 ? end : page;
            const bool isThere = cache.GetPageForWrite(written) != nullptr;
            ASSERT_EQ(isThere, model.Get(written, true)) << step;
            if (isThere) {
                end = std::max(end, written + 1);
                cache.ReleasePageForWrite(written);
                model.Release(written);
            }
        }
        ASSERT_EQ(trace.Take(), model.Take()) << step;
    }
    cache.Close();
    model.Close();
    EXPECT_EQ(trace.Take(), model.Take());
}

INSTANTIATE_TEST_SUITE_P(Capacities, PageCacheTransfers, ::testing::Values(1, 2, 7, 64),
                         [](const auto& test) { return std::to_string(test.param); });

}  // namespace

}  // namespace Quorvel::Testing
