// Files with more than one wrong field: chains that loop, cross and end early, pages with two
// owners, counts too large for the file, truncated and grown files, and random bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "faults/DamagedFile.h"
#include "faults/Figures.h"
#include "format/EffectCacheWriter.h"
#include "format/PackageWriter.h"
#include "format/TestData.h"
#include "quorvel/Quorvel.h"
#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"
#include "torture/EffectBytes.h"

namespace Quorvel::Faults {

namespace {

using Format::Bytes;
using Format::PackageImage;
using Format::StreamRecord;

constexpr std::uint64_t kLongestChain = 262143;  // its size still fits a signed 32-bit number

class DamagedChains : public ::testing::Test {
protected:
    // Applies `damage` to the contents of the sound file and examines the resulting file.
    void Examine(const std::string& name, const std::function<void(PackageImage&)>& damage) {
        PackageImage image = examiner_.Map().Image();
        damage(image);
        examiner_.Examine(Format::EncodePackage(image), name);
    }

    void TearDown() override {
        EXPECT_NE(examiner_.Result().files, 0U);
        Testing::FiguresOfThisProgram().damagedFiles += examiner_.Result().files;
        EXPECT_TRUE(examiner_.Result().IsGood()) << examiner_.Result();
    }

    // The record of the index, or of the n-th effect.
    StreamRecord& IndexRecord(PackageImage& image) const {
        return RecordOf(image, examiner_.Map().IndexStream());
    }
    StreamRecord& EffectRecord(PackageImage& image, std::size_t effect) const {
        return RecordOf(image, examiner_.Map().Entries()[effect].stream);
    }
    static StreamRecord& RecordOf(PackageImage& image, std::uint64_t id) {
        return *std::find_if(image.streams.begin(), image.streams.end(),
                             [=](const StreamRecord& record) { return record.id == id; });
    }
    static std::uint64_t& Link(PackageImage& image, std::uint64_t page) {
        return image.links.at(page - Format::kFirstPage);
    }

    Examiner examiner_{SampleCache()};
};

}  // namespace

TEST_F(DamagedChains, OfAStreamLoop) {
    for (const std::uint64_t pageCount : {std::uint64_t{2}, std::uint64_t{100}, kLongestChain}) {
        Examine("one page that follows itself", [&](PackageImage& image) {
            StreamRecord& record = EffectRecord(image, 0);
            Link(image, record.firstPage) = record.firstPage;
            record.size += (pageCount - record.pageCount) * Format::kPageSize;
            record.pageCount = pageCount;
        });
        Examine("two pages that follow each other", [&](PackageImage& image) {
            StreamRecord& record = EffectRecord(image, 9);
            Link(image, Link(image, record.firstPage)) = record.firstPage;
            record.size += (pageCount - record.pageCount) * Format::kPageSize;
            record.pageCount = pageCount;
        });
    }
}

// The index lies in a page that follows itself, so it repeats the same effect without end.
TEST_F(DamagedChains, OfTheIndexLoop) {
    for (const std::uint64_t count : {1ull, 1000ull, 8388608ull}) {
        Examine("index", [&](PackageImage& image) {
            const std::uint64_t page = EffectRecord(image, 0).firstPage;
            Link(image, page) = page;
            std::vector<Format::IndexEntry> entries(1);
            entries[0].name = std::string(8192 - 52, 'x');
            entries[0].record.nameLength = 8192 - 52;
            entries[0].record.size = 1;
            const Bytes index = Format::EncodeIndex(entries);
            std::copy(index.begin(), index.end(),
                      image.file.begin() + static_cast<std::ptrdiff_t>(Format::PageOffset(page)));
            StreamRecord& record = IndexRecord(image);
            record.firstPage = page;
            record.size += (kLongestChain - record.pageCount) * Format::kPageSize;
            record.pageCount = kLongestChain;
            Format::StoreInteger(image.headerData, 16, 8, count);
        });
    }
}

TEST_F(DamagedChains, ThatCrossEndEarlyAndContinue) {
    Examine("cross", [&](PackageImage& image) {
        Link(image, EffectRecord(image, 0).firstPage) = EffectRecord(image, 1).firstPage;
    });
    Examine("cross at the second page", [&](PackageImage& image) {
        Link(image, EffectRecord(image, 0).firstPage) =
            Link(image, EffectRecord(image, 9).firstPage);
    });
    Examine("end early",
            [&](PackageImage& image) { Link(image, EffectRecord(image, 9).firstPage) = 0; });
    Examine("continue in the head file", [&](PackageImage& image) {
        Link(image, EffectRecord(image, 0).firstPage) = Format::kFirstPage;
    });
    Examine("continue in a tail block", [&](PackageImage& image) {
        Link(image, EffectRecord(image, 0).firstPage) = image.blocks[0].pages[0];
    });
    Examine("tail block ends early",
            [&](PackageImage& image) { Link(image, image.blocks[0].pages[3]) = 0; });
    Examine("tail block loops", [&](PackageImage& image) {
        Link(image, image.blocks[0].pages[7]) = image.blocks[0].pages[0];
    });
    Examine("all free", [](PackageImage& image) {
        std::fill(image.links.begin(), image.links.end(), Format::kFreePage);
    });
    Examine("all in use", [](PackageImage& image) {
        std::replace(image.links.begin(), image.links.end(), Format::kFreePage, Format::kChainEnd);
    });
}

TEST_F(DamagedChains, WhosePagesHaveTwoOwners) {
    for (std::size_t effect = 0; effect < 7; ++effect) {
        const std::string name = "effect " + std::to_string(effect);
        Examine(name + " and the next", [&](PackageImage& image) {
            EffectRecord(image, effect).firstPage = EffectRecord(image, (effect + 1) % 7).firstPage;
        });
        Examine(name + " and the head file", [&](PackageImage& image) {
            EffectRecord(image, effect).firstPage = Format::kFirstPage;
        });
        Examine(name + " and a tail block", [&](PackageImage& image) {
            EffectRecord(image, effect).firstPage = image.blocks[0].pages[7];
        });
        Examine(name + " in a free page", [&](PackageImage& image) {
            const auto free = std::find(image.links.begin(), image.links.end(), Format::kFreePage);
            const auto page = static_cast<std::uint64_t>(free - image.links.begin()) + 10;
            EffectRecord(image, effect).firstPage = page;
        });
    }
    for (const std::size_t slot : {0U, 3U, 7U}) {
        Examine("a tail block and a stream", [&](PackageImage& image) {
            image.blocks[0].pages[slot] = EffectRecord(image, 0).firstPage;
        });
        Examine("a tail block with a page twice", [&](PackageImage& image) {
            image.blocks[0].pages[slot] = image.blocks[0].pages[(slot + 1) % 8];
        });
        Examine("a second tail block", [&](PackageImage& image) {
            image.blocks.push_back(image.blocks[0]);
            image.blocks[1].id = 1;
            image.blocks[1].freeBytes = slot * 9000;
            image.blocks[1].streams.clear();
        });
    }
}

TEST_F(DamagedChains, WhoseTailsOverlap) {
    const std::size_t count = examiner_.Map().Image().fragments.size();
    for (std::size_t first = 0; first < count; ++first) {
        for (const std::size_t second : {(first + 1) % count, (first + 3) % count}) {
            Examine("the same place", [&](PackageImage& image) {
                image.fragments[first].offset = image.fragments[second].offset;
            });
            Examine("swapped streams", [&](PackageImage& image) {
                std::swap(image.fragments[first].streamId, image.fragments[second].streamId);
            });
        }
    }
}

TEST_F(DamagedChains, CutAtEvery512Bytes) {
    const Bytes& sound = examiner_.Sound();
    constexpr std::size_t kStep = 512 * QUORVEL_FILE_STRIDE;
    for (std::size_t size = 0; size < sound.size(); size += kStep) {
        examiner_.Examine(Bytes(sound.begin(), sound.begin() + static_cast<std::ptrdiff_t>(size)),
                          "cut at " + std::to_string(size));
    }
}

TEST_F(DamagedChains, Grown) {
    for (const std::size_t more : {1U, 511U, 8191U, 8192U, 8193U, 100000U}) {
        for (const int fill : {0, 1, 0xFF}) {
            Bytes file = examiner_.Sound();
            file.insert(file.end(), more, static_cast<std::uint8_t>(fill));
            const std::uint64_t foundBefore = examiner_.Result().found;
            examiner_.Examine(file, "grown by " + std::to_string(more));
            EXPECT_EQ(examiner_.Result().found - foundBefore, examiner_.Map().Entries().size());
        }
    }
}

TEST_F(DamagedChains, OfRandomBytes) {
    std::mt19937 random(1);
    for (int round = 0; round < 40; ++round) {
        Bytes file(random() % 60000);
        for (std::uint8_t& byte : file) {
            byte = static_cast<std::uint8_t>(random());
        }
        // Half of the files begin with a head page that looks sound.
        if (round % 2 != 0 && file.size() > 8192) {
            std::copy_n(examiner_.Sound().begin(), 32 + random() % 500, file.begin());
        }
        examiner_.Examine(file, "random " + std::to_string(round));
    }
}

// Files of about 1 MiB that claim as much as they can.
class GreedyFiles : public DamagedChains {
protected:
    static constexpr std::size_t kMiB = std::size_t{1} << 20;

    const Testing::TemporaryDirectory directory_;

    void ExamineFile(const std::string& name, Bytes file) {
        EXPECT_LE(file.size(), kMiB);
        file.resize(kMiB);
        examiner_.Examine(file, name);
    }

    // A package with the tables that `fill` sets.
    static Bytes Package(const std::function<void(PackageImage&)>& fill) {
        PackageImage image = Format::LayOutPackage({}, {}, {});
        fill(image);
        image.headPages.clear();
        const std::size_t size = Format::EncodeState(image).size();
        const std::size_t pages = size <= 8160 ? 1 : 1 + (size - 8160 + 8175) / 8176;
        for (std::size_t index = 0; index < pages; ++index) {
            image.headPages.push_back({Format::kFirstPage + index, 0, 0});
        }
        image.file.resize(pages * Format::kPageSize);
        return Format::EncodePackage(image);
    }
};

TEST_F(GreedyFiles, OfManyFreePages) {
    ExamineFile("free pages", Package([](PackageImage& image) {
                    image.links.assign(125000, Format::kFreePage);
                }));
}

TEST_F(GreedyFiles, OfManyPagesInUse) {
    ExamineFile("pages in use", Package([](PackageImage& image) {
                    image.links.assign(125000, Format::kChainEnd);
                }));
}

// Taking a page after all of these would make the file about 800 MB long.
TEST_F(GreedyFiles, OfACacheWithManyPagesInUseThatTheFileDoesNotHold) {
    Format::EffectCacheLayout layout;
    layout.package.freePagesAtEnd = 100000;
    PackageImage image = Format::LayOutEffectCache(
        {{"effect-0", Torture::MakeEffect("effect-0", 1, 300), false, {}}}, layout);
    std::replace(image.links.begin(), image.links.end(), Format::kFreePage, Format::kChainEnd);
    const Bytes file = Format::EncodePackage(image);
    Format::WriteWholeFile(directory_.File("vornFxoCache.dat"), file);
    const std::uint64_t before = Testing::CountStdioCalls().bytesWritten;
    {
        const std::string path = directory_.Path().string();
        const Util::RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(path.c_str()));
        const Bytes bytes(9000);
        cache->CacheCompiledEffect("x", bytes.data(), bytes.size(), false);
    }
    EXPECT_LE(Testing::CountStdioCalls().bytesWritten - before, 4 * kMiB);
    examiner_.Examine(examiner_.Sound(), "sound");
}

TEST_F(GreedyFiles, OfManyStreamsWithHighIds) {
    ExamineFile("streams", Package([](PackageImage& image) {
                    for (std::uint64_t index = 0; index < 31000; ++index) {
                        image.streams.push_back({Format::kHighestId - 541 * index, 0, 0, 0});
                    }
                }));
}

TEST_F(GreedyFiles, OfManyFragmentsWithHighIds) {
    ExamineFile(
        "fragments", Package([](PackageImage& image) {
            image.blocks.push_back({0, {11, 12, 13, 14, 15, 16, 17, 18}, 0, {}});
            for (std::uint64_t index = 0; index < 24000; ++index) {
                image.fragments.push_back({Format::kHighestId - 690 * index, 0, 0, index, 1});
            }
        }));
}

TEST_F(GreedyFiles, OfManyBlocksWithHighIds) {
    ExamineFile("blocks", Package([](PackageImage& image) {
                    for (std::uint64_t index = 0; index < 11000; ++index) {
                        image.blocks.push_back({Format::kHighestId / 8 - 190 * index,
                                                {11, 12, 13, 14, 15, 16, 17, 18},
                                                0,
                                                {}});
                    }
                }));
}

TEST_F(GreedyFiles, ThatClaimALongHeadFile) {
    Bytes file = examiner_.Sound();
    Format::StoreInteger(file, 0, 8, Format::kPageCountLimit);
    examiner_.Examine(file, "a long chain");
    Format::StoreInteger(file, 8, 8, 0x7FFFFFFF);
    examiner_.Examine(file, "a large head file");
    for (const std::uint64_t count : {1048566ull, 131072ull, 8192ull}) {
        Format::StoreInteger(file, 32, 8, count);
        examiner_.Examine(file, "many links");
    }
}

TEST_F(GreedyFiles, OfManyNames) {
    std::vector<Format::NewEffect> effects;
    for (int index = 0; index < 7000; ++index) {
        effects.push_back({"name " + std::to_string(index), {1}, false, {}});
    }
    const Bytes file = Format::WriteEffectCache(effects);
    EXPECT_LE(file.size(), 2 * kMiB);
    examiner_.Examine(file, "names");
}

// What has been read of the index must not be copied again for each piece.
TEST_F(GreedyFiles, OfALongIndexWithoutARecord) {
    Format::CacheHeader header;
    header.effectCount = 1;
    header.indexStream = 0;
    const Bytes file =
        Format::WritePackage({{0, Bytes(4 * kMiB)}}, Format::EncodeHeaderBlock(header));
    examiner_.Examine(file, "index");
}

}  // namespace Quorvel::Faults
