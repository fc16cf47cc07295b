#include "pagestore/ChildFileStream.h"

#include <random>

#include "package/PackageTest.h"
#include "seekers/ChildFileSeeker.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;

// A child file of two whole pages, 11 and 12, and a tail that lies across the end of page 13.
class ChildFileStreamTest : public PackageTest {
protected:
    static constexpr std::uint64_t kSize = 2 * 8192 + 5000;

    ChildFileStreamTest() : cache_(directory_.File("pages").c_str(), 16) {
        EXPECT_TRUE(allocator_->MarkPageAllocated(10));
        std::uint64_t page = allocator_->AllocatePage(0);
        allocator_->AllocatePage(page);
        page = allocator_->AllocatePage(0);
        allocator_->AllocatePage(page);
        cache_.EnsurePageInFile(14);
    }

    Util::RefPtr<IPagedFileSeeker> NewSeeker() {
        const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
        EXPECT_TRUE(seeker->Attach(allocator_, {7, kSize, 11, 2}, {13, 14, 6000, 5000}));
        return seeker;
    }

    FilePageCache cache_;
    Util::RefPtr<IPageAllocator> allocator_{new PageAllocator};
};

}  // namespace

TEST_F(ChildFileStreamTest, ReadsWritesAndSeeksAsAPagedFileStreamDoes) {
    const Util::RefPtr<IDataStream> child(
        new ChildFileStream(package_.Get(), 7, &cache_, NewSeeker()));
    const Util::RefPtr<IDataStream> plain(new PagedFileStream(&cache_, NewSeeker()));
    const Bytes content = Format::Pattern(kSize + 100, 1);
    EXPECT_EQ(plain->Write(content.data(), content.size()), kSize);
    EXPECT_EQ(child->GetSize(), kSize);
    EXPECT_TRUE(plain->Seek(kSeekFromStart, 0));

    std::mt19937 random(1);
    const auto below = [&random](std::uint32_t limit) {
        return static_cast<std::uint32_t>(random() % limit);
    };
    for (int step = 0; step < 2000; ++step) {
        const std::uint32_t origin = below(3);
        const auto offset = static_cast<std::int32_t>(below(60000)) - 30000;
        EXPECT_EQ(child->Seek(origin, offset), plain->Seek(origin, offset));
        const std::uint32_t size = below(9000);
        if (below(4) == 0) {
            const Bytes written = Format::Pattern(size, static_cast<std::uint64_t>(step));
            EXPECT_EQ(child->Write(written.data(), size), plain->Write(written.data(), size));
        } else {
            Bytes read(size);
            Bytes expected(size);
            EXPECT_EQ(child->Read(read.data(), size), plain->Read(expected.data(), size));
            EXPECT_TRUE(read == expected);
        }
        ASSERT_EQ(child->GetPosition(), plain->GetPosition());
        ASSERT_FALSE(HasFailure()) << "in step " << step;
    }
}

TEST_F(ChildFileStreamTest, IsNoLongerOpenInItsPackageOnceItDies) {
    const std::uint64_t id = Add(10000);
    auto stream = package_->OpenDataStream(id);
    EXPECT_FALSE(package_->DeleteDataStream(id));
    stream.Reset();
    EXPECT_TRUE(package_->DeleteDataStream(id));
}

TEST_F(ChildFileStreamTest, NeedsASeekerThatHasAStart) {
    EXPECT_THROW(new ChildFileStream(package_.Get(), 7, &cache_, {}), InvalidParameterException);
    const Util::RefPtr<IPagedFileSeeker> unattached(new ChildFileSeeker);
    EXPECT_THROW(new ChildFileStream(package_.Get(), 7, &cache_, unattached),
                 InvalidParameterException);
}

}  // namespace Quorvel::Testing
