#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "format/LibraryPackage.h"
#include "format/TestData.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Format {
namespace {

struct History {
    unsigned seed;
    std::uint64_t pageCacheCapacity;
};

void PrintTo(const History& history, std::ostream* out) {
    *out << "seed " << history.seed << ", " << history.pageCacheCapacity << " pages";
}

// Changes a package and a model of it at random.
class LibraryWritesPackage : public testing::TestWithParam<History> {
protected:
    void SetUp() override {
        package_ = CreatePackage(path_, Settings());
        ASSERT_TRUE(package_);
    }

    void Step() {
        switch (random_() % 10) {
            case 0:
            case 1:
            case 2:
            case 3:
                Create();
                break;
            case 4:
            case 5:
                Delete();
                break;
            case 6:
                Overwrite();
                break;
            case 7:
                Hold();
                break;
            case 8:
                ChangeHeaderData();
                break;
            default:
                CommitAndCheck();
                break;
        }
    }

    void CommitAndCheck() {
        // Counts as a change, so that Commit also writes back streams that were overwritten.
        package_->GetHeaderData();
        ASSERT_TRUE(package_->Commit());
        ExpectFile(path_, streams_, headerData_);
        switch (random_() % 4) {
            case 0:
                held_.clear();
                package_.Reset();
                package_ = OpenPackage(path_, Settings());
                ASSERT_TRUE(package_);
                break;
            case 1:
                held_.clear();
                ASSERT_TRUE(package_->Load());
                break;
            default:
                break;
        }
        ExpectStreams(*package_, streams_);
        EXPECT_TRUE(GetHeaderData(*package_) == headerData_);
    }

    void Finish() {
        CommitAndCheck();
        held_.clear();
        package_.Reset();
        ExpectFile(path_, streams_, headerData_);
    }

private:
    LibrarySettings Settings() const { return {GetParam().pageCacheCapacity, 500}; }

    std::size_t AnySize() {
        const std::vector<std::size_t>& sizes = BoundarySizes();
        return random_() % 2 == 0 ? sizes[random_() % sizes.size()] : random_() % 20000;
    }

    std::uint64_t AnyStream() {
        return std::next(streams_.begin(), static_cast<std::ptrdiff_t>(random_() % streams_.size()))
            ->first;
    }

    void Create() {
        const Bytes content = Pattern(AnySize(), random_());
        const std::uint64_t id = AddStream(*package_, content);
        ASSERT_EQ(streams_.count(id), 0u);
        streams_[id] = content;
    }

    void Delete() {
        if (streams_.empty()) { return; }
        const std::uint64_t id = AnyStream();
        ASSERT_EQ(package_->DeleteDataStream(id), held_.count(id) == 0);
        if (held_.count(id) == 0) { streams_.erase(id); }
    }

    void Overwrite() {
        if (streams_.empty()) { return; }
        const std::uint64_t id = AnyStream();
        Bytes& content = streams_[id];
        if (content.empty()) { return; }
        const std::size_t from = random_() % content.size();
        const Bytes bytes = Pattern(1 + random_() % (content.size() - from), random_());
        std::copy(bytes.begin(), bytes.end(), content.begin() + static_cast<std::ptrdiff_t>(from));
        const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
        ASSERT_TRUE(stream->Seek(kSeekFromStart, static_cast<std::int32_t>(from)));
        ASSERT_EQ(stream->Write(bytes.data(), bytes.size()), bytes.size());
    }

    // Keeps a stream open for a while, so that its neighbours change around it.
    void Hold() {
        if (held_.size() >= 2) { held_.erase(held_.begin()); }
        if (!streams_.empty()) {
            const std::uint64_t id = AnyStream();
            if (!streams_[id].empty()) { held_[id] = package_->OpenDataStream(id); }
        }
    }

    void ChangeHeaderData() {
        headerData_ = Pattern(random_() % 3 == 0 ? random_() % 20000 : random_() % 100, random_());
        SetHeaderData(*package_, headerData_);
    }

    Testing::TemporaryDirectory directory_;
    std::string path_ = directory_.File("package");
    std::mt19937 random_{GetParam().seed};
    Util::RefPtr<IDataStreamSet> package_;
    std::map<std::uint64_t, Util::RefPtr<IDataStream>> held_;
    std::map<std::uint64_t, Bytes> streams_;
    Bytes headerData_;
};

TEST_P(LibraryWritesPackage, SoundAndLikeItsModelAfterEachCommitOfARandomHistory) {
    for (int step = 0; step < 400; ++step) {
        ASSERT_NO_FATAL_FAILURE(Step()) << "in step " << step;
        ASSERT_FALSE(HasFailure()) << "in step " << step;
    }
    Finish();
}

INSTANTIATE_TEST_SUITE_P(All, LibraryWritesPackage,
                         testing::Values(History{1, 8}, History{2, 8}, History{3, 9},
                                         History{4, 16}, History{5, 64}, History{6, 1000}),
                         [](const auto& instance) {
                             return "Seed" + std::to_string(instance.param.seed);
                         });

TEST(LibraryWritesPackage, OverAnotherFileWithoutShorteningIt) {
    const Testing::TemporaryDirectory directory;
    const std::string path = directory.File("package");
    WriteWholeFile(path, Pattern(100000, 1));

    const Bytes content = Pattern(9000, 2);
    std::uint64_t id = kInvalidStreamId;
    {
        const auto package = CreatePackage(path);
        ASSERT_TRUE(package);
        id = AddStream(*package, content);
    }

    EXPECT_EQ(ReadWholeFile(path).size(), 100000u);
    ExpectFile(path, {{id, content}}, {});
}

TEST(LibraryWritesPackage, WithAHeadFileThatEndsAnywhereAroundAPageEnd) {
    const Testing::TemporaryDirectory directory;
    const std::string path = directory.File("package");
    const auto package = CreatePackage(path);
    ASSERT_TRUE(package);
    // The fixed parts of the state are 48 bytes with one page and 56 with two.
    for (std::size_t size = 8160 - 60; size <= 8160 - 40; ++size) {
        const Bytes headerData = Pattern(size, size);
        SetHeaderData(*package, headerData);
        ASSERT_TRUE(package->Commit());
        ExpectFile(path, {}, headerData);
        ASSERT_TRUE(package->Load()) << size;
        EXPECT_TRUE(GetHeaderData(*package) == headerData);
    }
    for (std::size_t size = 8160 + 8176 - 80; size <= 8160 + 8176 - 40; ++size) {
        const Bytes headerData = Pattern(size, size);
        SetHeaderData(*package, headerData);
        ASSERT_TRUE(package->Commit());
        ExpectFile(path, {}, headerData);
        ASSERT_TRUE(package->Load()) << size;
        EXPECT_TRUE(GetHeaderData(*package) == headerData);
    }
}

TEST(LibraryWritesPackage, WithALinkTableThatGrowsByTheHeadFilesOwnPages) {
    const Testing::TemporaryDirectory directory;
    const std::string path = directory.File("package");
    const auto package = CreatePackage(path);
    ASSERT_TRUE(package);
    std::map<std::uint64_t, Bytes> streams;
    for (std::uint32_t pages = 1; pages <= 1100; pages += 157) {
        const Bytes content = Pattern(pages * kPageSize, pages);
        streams[AddStream(*package, content)] = content;
        ASSERT_TRUE(package->Commit());
        ExpectFile(path, streams, {});
    }
}

}  // namespace
}  // namespace Quorvel::Format
