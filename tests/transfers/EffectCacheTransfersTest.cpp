#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "format/EffectCacheImage.h"
#include "format/LibraryCache.h"
#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"
#include "transfers/PageCacheModel.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;

constexpr std::uint64_t kPagesInMemory = 64;
constexpr int kEffects = 1000;

std::string NameOf(int number) {
    return "effect " + std::to_string(number);
}

// From 1 byte to about three pages, mostly around 2 KiB.
Bytes BytesOf(int number) {
    std::minstd_rand random(static_cast<unsigned>(number) + 1);
    const std::uint64_t size = number % 50 == 0 ? 1 + random() % 25000 : 1000 + random() % 2500;
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(),
                  [&random] { return static_cast<unsigned char>(random() >> 8); });
    return bytes;
}

class EffectCacheTransfers : public ::testing::Test {
protected:
    void AddAll(Format::LibraryCache& cache) {
        for (int number = 0; number < kEffects; ++number) {
            cache.Add(NameOf(number), {BytesOf(number), false});
        }
        cache->ForceSaveToFile();
        ASSERT_EQ(cache->GetNumberOfEffectsInFile(), static_cast<std::uint64_t>(kEffects));
    }

    std::uint64_t FileSize() const {
        return std::filesystem::file_size(Format::CacheFile(directory_));
    }

    // Only the journal is written in pieces of more than a page.
    static bool IsOfJournal(const StdioTransfer& transfer) { return transfer.size > kPageSize; }

    TemporaryDirectory directory_;
};

// The order of page requests follows from where the file stores the effects. A first pass, which is
// not compared, brings the model to the pages that the cache holds.
TEST_F(EffectCacheTransfers, OfSearchesMatchTheModel) {
    {
        Format::LibraryCache cache(directory_);
        AddAll(cache);
    }
    const Format::PackageImage image = Format::ReadPackage(
        Format::ReadWholeFile(Format::CacheFile(directory_)), Format::kCacheStreamLimit);
    const Format::StreamReader reader(image);
    std::map<std::string, std::vector<std::uint64_t>> pages;
    for (const auto& [name, effect] : Format::ReadEffectCache(image)) {
        pages[name] = reader.Pages(effect.record.streamId);
    }
    ASSERT_EQ(pages.size(), static_cast<std::size_t>(kEffects));

    Format::LibraryCache cache(directory_);
    PageCacheModel model(kPagesInMemory, image.file.size());
    std::vector<int> order(kEffects);
    for (int number = 0; number < kEffects; ++number) {
        order[static_cast<std::size_t>(number)] = number;
    }
    std::minstd_rand random(11);
    StdioTrace trace;
    for (int pass = 0; pass < 2; ++pass) {
        std::shuffle(order.begin(), order.end(), random);
        for (const int number : order) {
            ASSERT_EQ(cache.Search(NameOf(number)), BytesOf(number));
            for (const std::uint64_t page : pages.at(NameOf(number))) {
                ASSERT_TRUE(model.Get(page, false));
                model.Release(page);
            }
            const Transfers made = trace.Take();
            const Transfers expected = model.Take();
            if (pass == 1) { ASSERT_EQ(made, expected) << NameOf(number); }
        }
    }
}

// All transfers of the cache's file are whole pages. A page is read only if the file has it, and
// not again before it is written.
TEST_F(EffectCacheTransfers, OfSavesWriteEachPageThatTheyRead) {
    Format::LibraryCache cache(directory_);
    const std::uint64_t sizeBefore = FileSize();
    StdioTrace trace;
    AddAll(cache);
    std::set<std::uint64_t> inMemory;
    std::set<std::uint64_t> inFile;
    for (std::uint64_t page = 0; page < sizeBefore / kPageSize; ++page) {
        inFile.insert(page);
    }
    for (const StdioTransfer& transfer : trace.Take()) {
        if (IsOfJournal(transfer)) { continue; }
        ASSERT_EQ(transfer.size, kPageSize);
        ASSERT_EQ(transfer.offset % kPageSize, 0u);
        const std::uint64_t page = transfer.offset / kPageSize;
        if (transfer.kind == StdioTransfer::Kind::Read) {
            ASSERT_TRUE(inMemory.insert(page).second) << page;
            ASSERT_EQ(inFile.count(page), 1u) << page;
        } else {
            inMemory.erase(page);
            inFile.insert(page);
        }
    }
    EXPECT_TRUE(inMemory.empty());
}

// The numbers follow from the saved effects and the format: fewer transfers would leave something
// out, more would be wasteful.
TEST_F(EffectCacheTransfers, OfAKnownSaveHaveTheExpectedNumbers) {
    Format::LibraryCache cache(directory_);
    std::uint64_t end = FileSize();
    StdioTrace trace;
    AddAll(cache);
    std::uint64_t reads = 0;
    std::uint64_t writes = 0;
    std::uint64_t growths = 0;
    std::uint64_t pieces = 0;
    for (const StdioTransfer& transfer : trace.Take()) {
        if (IsOfJournal(transfer)) {
            ++pieces;
            continue;
        }
        const bool isRead = transfer.kind == StdioTransfer::Kind::Read;
        const bool grows = !isRead && transfer.offset >= end;
        end = std::max(end, transfer.offset + transfer.size);
        ++(isRead ? reads : grows ? growths : writes);
    }
    EXPECT_EQ(growths, 393u);  // 77 of them are spare pages
    EXPECT_EQ(reads, 348u);
    EXPECT_EQ(writes, 351u);
    EXPECT_EQ(pieces, 2u);  // two saves wrote one each
}

}  // namespace

}  // namespace Quorvel::Testing
