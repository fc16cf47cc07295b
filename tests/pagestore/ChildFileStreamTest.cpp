#include "pagestore/ChildFileStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>

#include "package/PagedFilePackage.h"
#include "pagestore/Fakes.h"
#include "pagestore/PageAllocator.h"
#include "quorvel/Exceptions.h"
#include "seekers/ChildFileSeeker.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

constexpr std::uint64_t kStreamSize = 2 * kPageSize + 500;

class ChildFileStreamTest : public ::testing::Test {
protected:
    ChildFileStreamTest() : package_(new PagedFilePackage({path_.c_str(), 16, 100})) {
        package_->Create();
    }

    // Creates a stream with that content in the package.
    std::uint64_t CreateStream(const Bytes& content) {
        const std::uint64_t id = package_->CreateDataStream(content.size());
        EXPECT_EQ(package_->OpenDataStream(id)->Write(content.data(), content.size()),
                  content.size());
        return id;
    }

    static Bytes ReadAll(IDataStream& stream) {
        EXPECT_TRUE(stream.Seek(kSeekFromStart, 0));
        Bytes bytes(stream.GetSize() + 1);
        bytes.resize(stream.Read(bytes.data(), bytes.size()));
        EXPECT_EQ(bytes.size(), stream.GetSize());
        return bytes;
    }

    static void ExpectNoBytes(IDataStream& stream) {
        std::uint8_t byte = 5;
        EXPECT_EQ(stream.Read(&byte, 1), 0u);
        EXPECT_EQ(stream.Write(&byte, 1), 0u);
        EXPECT_EQ(byte, 5);
        EXPECT_EQ(stream.GetSize(), 0u);
        EXPECT_EQ(stream.GetPosition(), 0u);
        for (const std::uint32_t origin : {0u, 1u, 2u}) {
            EXPECT_FALSE(stream.Seek(origin, 0));
        }
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.File("package");
    Util::RefPtr<PagedFilePackage> package_;
};

}  // namespace

TEST_F(ChildFileStreamTest, IsOpenInItsPackageUntilItDies) {
    const std::uint64_t id = CreateStream(PatternBytes(kStreamSize));
    Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
    EXPECT_EQ(package_->OpenDataStream(id), stream);
    EXPECT_FALSE(package_->DeleteDataStream(id));
    stream.Reset();
    EXPECT_TRUE(package_->DeleteDataStream(id));
    EXPECT_FALSE(package_->OpenDataStream(id));
}

TEST_F(ChildFileStreamTest, LeavesTheOtherStreamsOpenWhenItDies) {
    const std::uint64_t first = CreateStream(PatternBytes(kStreamSize, 1));
    const std::uint64_t second = CreateStream(PatternBytes(kStreamSize, 2));
    Util::RefPtr<IDataStream> dying = package_->OpenDataStream(first);
    const Util::RefPtr<IDataStream> living = package_->OpenDataStream(second);
    dying.Reset();
    EXPECT_FALSE(package_->DeleteDataStream(second));
    EXPECT_EQ(ReadAll(*living), PatternBytes(kStreamSize, 2));
}

TEST_F(ChildFileStreamTest, ReadsAndWritesLikeAPagedFileStreamOverTheSameSeeker) {
    const Bytes file = PatternBytes(6 * kPageSize);
    const std::string path = directory_.File("pages");
    WriteFile(path, file);
    FilePageCache cache(path.c_str(), 8);
    const Util::RefPtr<PageAllocator> allocator(new PageAllocator);
    allocator->AllocatePage(0);
    allocator->AllocatePage(10);
    const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
    seeker->Attach(allocator, {7, kStreamSize, 10, 2}, {13, 0, 300, 500});
    const Util::RefPtr<IDataStream> child(new ChildFileStream(nullptr, 7, &cache, seeker));
    const Util::RefPtr<IDataStream> paged(new PagedFileStream(&cache, seeker));

    EXPECT_EQ(child->GetSize(), paged->GetSize());
    EXPECT_EQ(ReadAll(*child), ReadAll(*paged));
    EXPECT_EQ(child->GetPosition(), paged->GetPosition());

    const Bytes written = PatternBytes(9000, 5);
    for (const std::int32_t position : {0, 8000, 16000}) {
        for (const auto& [writer, reader] : {std::pair(child, paged), std::pair(paged, child)}) {
            ASSERT_TRUE(writer->Seek(kSeekFromStart, position));
            ASSERT_TRUE(reader->Seek(kSeekFromStart, position));
            const std::uint64_t expected =
                std::min<std::uint64_t>(9000, kStreamSize - static_cast<std::uint64_t>(position));
            EXPECT_EQ(writer->Write(written.data(), 9000), expected);
            Bytes read(9000);
            EXPECT_EQ(reader->Read(read.data(), 9000), expected);
            read.resize(expected);
            EXPECT_EQ(read, Slice(written, 0, expected));
            EXPECT_EQ(writer->GetPosition(), reader->GetPosition());
        }
    }
}

TEST_F(ChildFileStreamTest, NeedsAnAttachedSeeker) {
    FilePageCache cache(directory_.File("pages").c_str(), 8);
    for (const Util::RefPtr<ChildFileSeeker>& seeker :
         {Util::RefPtr<ChildFileSeeker>(), Util::RefPtr<ChildFileSeeker>(new ChildFileSeeker)}) {
        EXPECT_THROW(Util::RefPtr<IDataStream>(new ChildFileStream(nullptr, 0, &cache, seeker)),
                     InvalidParameterException);
    }
}

// A child file of two whole pages and a tail that crosses a page boundary, with a stream of each
// class over it.
class TwoStreamsTest : public ChildFileStreamTest {
protected:
    TwoStreamsTest() : cache_(directory_.File("pages").c_str(), 16) {
        for (const std::uint64_t previous : {0u, 10u, 0u, 12u}) {
            allocator_->AllocatePage(previous);
        }
        cache_.EnsurePageInFile(13);
        seeker_->Attach(allocator_, {7, kStreamSize, 10, 2}, {12, 13, 8000, 500});
        child_ = new ChildFileStream(package_.Get(), 7, &cache_, seeker_);
        plain_ = new PagedFileStream(&cache_, seeker_);
    }

    FilePageCache cache_;
    const Util::RefPtr<PageAllocator> allocator_{new PageAllocator};
    const Util::RefPtr<ChildFileSeeker> seeker_{new ChildFileSeeker};
    Util::RefPtr<ChildFileStream> child_;
    Util::RefPtr<PagedFileStream> plain_;
};

TEST_F(TwoStreamsTest, ReadWriteAndSeekAlikeInRandomOrder) {
    std::minstd_rand random(1);
    const auto below = [&random](std::uint32_t limit) {
        return static_cast<std::uint32_t>(random() % limit);
    };
    for (std::uint64_t step = 0; step < 2000; ++step) {
        const std::uint32_t origin = below(3);
        const auto offset = static_cast<std::int32_t>(below(60000)) - 30000;
        EXPECT_EQ(child_->Seek(origin, offset), plain_->Seek(origin, offset));
        const std::uint32_t size = below(9000);
        if (below(4) == 0) {
            const Bytes written = PatternBytes(size, step);
            EXPECT_EQ(child_->Write(written.data(), size), plain_->Write(written.data(), size));
        } else {
            Bytes read(size);
            Bytes expected(size);
            EXPECT_EQ(child_->Read(read.data(), size), plain_->Read(expected.data(), size));
            EXPECT_TRUE(read == expected);
        }
        ASSERT_EQ(child_->GetPosition(), plain_->GetPosition());
        ASSERT_FALSE(HasFailure()) << "in step " << step;
    }
}

TEST_F(TwoStreamsTest, ASeekerThatAnotherStreamHoldsOutlivesTheChild) {
    const Bytes content = PatternBytes(kStreamSize);
    ASSERT_EQ(plain_->Write(content.data(), kStreamSize), kStreamSize);
    child_.Reset();
    EXPECT_EQ(ReadAll(*plain_), content);
    EXPECT_EQ(seeker_->pageCount, 4u);
}

TEST_F(ChildFileStreamTest, LeavesItsSeekerToTheNextStream) {
    const Bytes small = PatternBytes(300, 1);
    const Bytes large = PatternBytes(kStreamSize, 2);
    const std::uint64_t first = CreateStream(small);
    const std::uint64_t second = CreateStream(large);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(ReadAll(*package_->OpenDataStream(first)), small);
        EXPECT_EQ(ReadAll(*package_->OpenDataStream(second)), large);
    }
}

TEST_F(ChildFileStreamTest, HasNoBytesOnceItLeftItsPackage) {
    const std::uint64_t id = CreateStream(PatternBytes(kStreamSize));
    const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
    std::uint8_t byte;
    ASSERT_EQ(stream->Read(&byte, 1), 1u);
    package_->ForgetOpenStream(id);
    static_cast<ChildFileStream&>(*stream).LeavePackage();
    ExpectNoBytes(*stream);
}

TEST_F(ChildFileStreamTest, ThatLeftItsPackageDoesNotNotifyItWhenItDies) {
    const std::uint64_t id = CreateStream(PatternBytes(kStreamSize));
    Util::RefPtr<IDataStream> former = package_->OpenDataStream(id);
    package_->ForgetOpenStream(id);
    static_cast<ChildFileStream&>(*former).LeavePackage();
    const Util::RefPtr<IDataStream> current = package_->OpenDataStream(id);
    former.Reset();
    EXPECT_EQ(package_->OpenDataStream(id), current);
}

TEST_F(ChildFileStreamTest, MayOutliveItsPackageButThenHasNoBytes) {
    const std::uint64_t id = CreateStream(PatternBytes(kStreamSize));
    const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
    std::uint8_t byte = 3;
    ASSERT_EQ(stream->Write(&byte, 1), 1u);
    package_.Reset();
    ExpectNoBytes(*stream);
}

TEST_F(ChildFileStreamTest, KeepsItsPositionAndBytesWhenItsTailMoves) {
    const std::uint64_t first = CreateStream(PatternBytes(300, 1));
    const Bytes content = PatternBytes(kStreamSize, 2);
    const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(CreateStream(content));
    const auto position = static_cast<std::int32_t>(kStreamSize) - 100;
    ASSERT_TRUE(stream->Seek(kSeekFromStart, position));
    Bytes bytes(10);
    ASSERT_EQ(stream->Read(bytes.data(), 10), 10u);
    ASSERT_TRUE(package_->DeleteDataStream(first));
    EXPECT_EQ(stream->GetPosition(), kStreamSize - 90);
    ASSERT_EQ(stream->Read(bytes.data(), 10), 10u);
    EXPECT_EQ(bytes, Slice(content, kStreamSize - 90, 10));
    EXPECT_EQ(ReadAll(*stream), content);
}

TEST_F(ChildFileStreamTest, KeepsPackageAndIdAfterThePagedFileStream) {
    static_assert(sizeof(ChildFileStream) == sizeof(PagedFileStream) + 16);
    const std::uint64_t id = CreateStream(PatternBytes(10));
    const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
    EXPECT_EQ(FieldAt<PagedFilePackage*>(stream.Get(), sizeof(PagedFileStream)), package_.Get());
    EXPECT_EQ(FieldAt<std::uint64_t>(stream.Get(), sizeof(PagedFileStream) + 8), id);
}

TEST(ChildFileStreamClass, OverridesNoOperationOfTheStream) {
    EXPECT_EQ(&ChildFileStream::Read, &PagedFileStream::Read);
    EXPECT_EQ(&ChildFileStream::Write, &PagedFileStream::Write);
    EXPECT_EQ(&ChildFileStream::Seek, &PagedFileStream::Seek);
    EXPECT_EQ(&ChildFileStream::GetSize, &PagedFileStream::GetSize);
    EXPECT_EQ(&ChildFileStream::GetPosition, &PagedFileStream::GetPosition);
}

}  // namespace Quorvel::Testing
