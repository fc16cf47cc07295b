#include "pagestore/ChildFileStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "package/PagedFilePackage.h"
#include "pagestore/Fakes.h"
#include "pagestore/PageAllocator.h"
#include "quorvel/Exceptions.h"
#include "seekers/ChildFileSeeker.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

constexpr std::uint64_t kSize = 2 * kPageSize + 500;

class ChildFileStreamTest : public ::testing::Test {
protected:
    ChildFileStreamTest() : package_(new PagedFilePackage({path_.c_str(), 16, 100})) {
        package_->Create();
    }

    // A stream of the package that holds a pattern.
    std::uint64_t CreateStream(const Bytes& content) {
        const std::uint64_t id = package_->CreateDataStream(content.size());
        EXPECT_EQ(package_->OpenDataStream(id)->Write(content.data(), content.size()),
                  content.size());
        return id;
    }

    static Bytes ReadAll(IDataStream& stream) {
        EXPECT_TRUE(stream.Seek(kSeekFromStart, 0));
        Bytes bytes(stream.GetSize());
        EXPECT_EQ(stream.Read(bytes.data(), bytes.size() + 1), bytes.size());
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
    const std::uint64_t id = CreateStream(PatternBytes(kSize));
    Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
    EXPECT_EQ(package_->OpenDataStream(id), stream);
    EXPECT_FALSE(package_->DeleteDataStream(id));
    stream.Reset();
    EXPECT_TRUE(package_->DeleteDataStream(id));
    EXPECT_FALSE(package_->OpenDataStream(id));
}

TEST_F(ChildFileStreamTest, ItsDeathLeavesTheOtherStreamsOpen) {
    const std::uint64_t first = CreateStream(PatternBytes(kSize, 1));
    const std::uint64_t second = CreateStream(PatternBytes(kSize, 2));
    Util::RefPtr<IDataStream> dying = package_->OpenDataStream(first);
    const Util::RefPtr<IDataStream> living = package_->OpenDataStream(second);
    dying.Reset();
    EXPECT_FALSE(package_->DeleteDataStream(second));
    EXPECT_EQ(ReadAll(*living), PatternBytes(kSize, 2));
}

TEST_F(ChildFileStreamTest, ReadsAndWritesAsAPagedFileStreamOverTheSameSeeker) {
    const Bytes file = PatternBytes(6 * kPageSize);
    const std::string path = directory_.File("pages");
    WriteFile(path, file);
    FilePageCache cache(path.c_str(), 8);
    const Util::RefPtr<PageAllocator> allocator(new PageAllocator);
    allocator->AllocatePage(0);
    allocator->AllocatePage(10);
    const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
    seeker->Attach(allocator, {7, kSize, 10, 2}, {13, 0, 300, 500});
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
                std::min<std::uint64_t>(9000, kSize - static_cast<std::uint64_t>(position));
            EXPECT_EQ(writer->Write(written.data(), 9000), expected);
            Bytes read(9000);
            EXPECT_EQ(reader->Read(read.data(), 9000), expected);
            read.resize(expected);
            EXPECT_EQ(read, Slice(written, 0, expected));
            EXPECT_EQ(writer->GetPosition(), reader->GetPosition());
        }
    }
}

TEST_F(ChildFileStreamTest, CantBeMadeWithoutASeeker) {
    FilePageCache cache(directory_.File("pages").c_str(), 8);
    EXPECT_THROW(Util::RefPtr<IDataStream>(new ChildFileStream(nullptr, 0, &cache, {})),
                 InvalidParameterException);
}

TEST_F(ChildFileStreamTest, HasNoBytesOnceItLeftItsPackage) {
    const std::uint64_t id = CreateStream(PatternBytes(kSize));
    const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
    std::uint8_t byte;
    ASSERT_EQ(stream->Read(&byte, 1), 1u);
    package_->ForgetOpenStream(id, {});
    static_cast<ChildFileStream&>(*stream).LeavePackage();
    ExpectNoBytes(*stream);
}

TEST_F(ChildFileStreamTest, ThatLeftItsPackageDiesWithoutTellingIt) {
    const std::uint64_t id = CreateStream(PatternBytes(kSize));
    Util::RefPtr<IDataStream> former = package_->OpenDataStream(id);
    package_->ForgetOpenStream(id, {});
    static_cast<ChildFileStream&>(*former).LeavePackage();
    const Util::RefPtr<IDataStream> current = package_->OpenDataStream(id);
    former.Reset();
    EXPECT_EQ(package_->OpenDataStream(id), current);
}

TEST_F(ChildFileStreamTest, MayOutliveItsPackageAndHasNoBytesThen) {
    const std::uint64_t id = CreateStream(PatternBytes(kSize));
    const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
    std::uint8_t byte = 3;
    ASSERT_EQ(stream->Write(&byte, 1), 1u);
    package_.Reset();
    ExpectNoBytes(*stream);
}

TEST_F(ChildFileStreamTest, KeepsItsPositionAndBytesWhenItsTailMoves) {
    const std::uint64_t first = CreateStream(PatternBytes(300, 1));
    const Bytes content = PatternBytes(kSize, 2);
    const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(CreateStream(content));
    const auto position = static_cast<std::int32_t>(kSize) - 100;
    ASSERT_TRUE(stream->Seek(kSeekFromStart, position));
    Bytes bytes(10);
    ASSERT_EQ(stream->Read(bytes.data(), 10), 10u);
    ASSERT_TRUE(package_->DeleteDataStream(first));
    EXPECT_EQ(stream->GetPosition(), kSize - 90);
    ASSERT_EQ(stream->Read(bytes.data(), 10), 10u);
    EXPECT_EQ(bytes, Slice(content, kSize - 90, 10));
    EXPECT_EQ(ReadAll(*stream), content);
}

TEST_F(ChildFileStreamTest, KeepsPackageAndNumberBehindThePagedFileStream) {
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
