#include <cerrno>
#include <filesystem>

#include "package/PackageTest.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;
using Format::PackageImage;
using ::testing::ElementsAreArray;

using Words = std::vector<std::uint64_t>;

using CommitTest = PackageTest;

// The 64-bit numbers at the start of a page.
Words WordsOfPage(const Bytes& file, std::uint64_t page, std::size_t count) {
    Words words;
    for (std::size_t index = 0; index < count; ++index) {
        words.push_back(Format::LoadInteger(file, Format::PageOffset(page) + index * 8, 8));
    }
    return words;
}

bool operator==(const StdioCounts& left, const StdioCounts& right) {
    return left.opens == right.opens && left.closes == right.closes && left.seeks == right.seeks &&
           left.tells == right.tells && left.reads == right.reads && left.writes == right.writes;
}

}  // namespace

TEST_F(CommitTest, OfACleanPackageDoesNotTouchTheFile) {
    Add(10000);
    ASSERT_TRUE(package_->Commit());
    const StdioCounts before = CountStdioCalls();
    EXPECT_TRUE(package_->Commit());
    EXPECT_TRUE(CountStdioCalls() == before);
}

TEST_F(CommitTest, OfAPackageWithoutAFileDoesNothing) {
    package_.Reset();
    std::filesystem::remove(path_);
    EXPECT_TRUE(NewPackage()->Commit());
    EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(CommitTest, WritesTheChangesToTheFile) {
    Add(10000);
    SetHeaderData({1, 2, 3});
    const auto reader = NewPackage();
    ASSERT_TRUE(reader->Load());
    EXPECT_EQ(reader->GetNumberOfDataStreams(), 0U);
    EXPECT_EQ(reader->GetHeaderDataSize(), 0U);
    CommitAndExpectFile();
}

TEST_F(CommitTest, IsMadeWhenTheLastReferenceIsReleased) {
    Add(10000);
    SetHeaderData({1, 2, 3});
    package_.Reset();
    Format::ExpectFile(path_, streams_, headerData_);
}

// ---- What it writes -----------------------------------------------------------------------------

TEST_F(CommitTest, WritesLinksThenStreamsThenTailsThenHeaderData) {
    Add(8192 + 5);
    SetHeaderData({'h', 'e', 'a', 'd', 'e', 'r', '!', '!'});
    CommitAndExpectFile();
    const Bytes file = File();
    constexpr std::uint64_t kStateSize = 8 * (11 + 5 + 1 + 12 + 6 + 2);
    const Words expected = {
        1,
        kStateSize,
        0,
        kStateSize + 32,  // one page
        10,               // links
        0,                // head file
        0,                // the stream's page
        13,
        14,
        15,
        16,
        17,
        18,
        19,
        0,  // the tail block
        1,  // streams
        0,
        8197,
        11,
        1,  //
        1,  // blocks
        0,
        12,
        13,
        14,
        15,
        16,
        17,
        18,
        19,
        65531,  //
        1,
        0,  // its list
        1,  // fragments
        0,
        0,
        0,
        0,
        5,                   //
        8,                   // header data
        0x2121726564616568,  // "header!!"
    };
    EXPECT_THAT(WordsOfPage(file, 10, expected.size()), ElementsAreArray(expected));
}

TEST_F(CommitTest, FillsThePagesOfTheHeadFileOneAfterTheOther) {
    SetHeaderData(Bytes(20000, 'h'));
    CommitAndExpectFile();
    const Bytes file = File();
    EXPECT_EQ(WordsOfPage(file, 10, 4), Words({3, 20064, 11, 8192}));
    EXPECT_EQ(WordsOfPage(file, 11, 2), Words({12, 8192}));
    EXPECT_EQ(WordsOfPage(file, 12, 2), Words({0, 20064 - 8160 - 8176 + 16}));
}

// Each page of the head file adds a link to the state that the head file holds. Without header data
// and with k pages the state has 40 + 8k bytes; two pages hold 8160 + 8176.
TEST_F(CommitTest, TakesOneMorePageIfTheLinksOfItsPagesDoNotFit) {
    constexpr std::size_t kFullWithTwo = 8160 + 8176 - 40 - 2 * 8;
    const auto pagesFor = [this](std::size_t headerSize) {
        StartOver();
        SetHeaderData(Format::Pattern(headerSize, headerSize));
        CommitAndExpectFile();
        return Image().headPageCount;
    };
    EXPECT_EQ(pagesFor(kFullWithTwo), 2U);
    for (std::size_t more = 1; more <= 8; ++more) {
        // While the link table has one link, the state still fits in two pages.
        EXPECT_LE(40 + 8 + kFullWithTwo + more, 8160U + 8176);
        EXPECT_EQ(pagesFor(kFullWithTwo + more), 3U) << more;
    }
    EXPECT_EQ(pagesFor(kFullWithTwo + 9), 3U);
}

TEST_F(CommitTest, ReusesThePagesOfTheOldHeadFile) {
    SetHeaderData(Bytes(20000, 'a'));
    CommitAndExpectFile();
    const std::size_t size = File().size();
    for (const char letter : {'b', 'c', 'd'}) {
        SetHeaderData(Bytes(20000, static_cast<std::uint8_t>(letter)));
        CommitAndExpectFile();
        EXPECT_EQ(File().size(), size);
        EXPECT_EQ(Image().links, Words({11, 12, 0}));
    }
}

TEST_F(CommitTest, FreesPagesThatTheHeadFileNoLongerNeeds) {
    SetHeaderData(Bytes(30000, 'a'));
    CommitAndExpectFile();
    const std::size_t size = File().size();
    SetHeaderData({});
    CommitAndExpectFile();
    EXPECT_EQ(Image().links, Words({0, 1, 1, 1}));
    Add(3 * 8192);
    CommitAndExpectFile();
    EXPECT_EQ(File().size(), size);
}

TEST_F(CommitTest, RewritesAHeadFileThatWasLoaded) {
    SetHeaderData(Bytes(20000, 'a'));
    Add(100);
    package_.Reset();
    package_ = NewPackage();
    ASSERT_TRUE(package_->Load());
    const std::size_t size = File().size();
    Add(200);
    SetHeaderData(Bytes(19000, 'b'));
    CommitAndExpectFile();
    EXPECT_EQ(File().size(), size);
}

TEST_F(CommitTest, GrowsTheHeadFileStepByStep) {
    for (std::uint64_t count = 0; count < 800; ++count) {
        Add(count % 3 == 0 ? 0 : 10);
        if (count % 50 == 49) { CommitAndExpectFile(); }
    }
    EXPECT_GT(Image().headPageCount, 5U);
    ExpectPackage();
}

// ---- Open streams -------------------------------------------------------------------------------

TEST_F(CommitTest, LeavesOpenStreamsWhereTheyAre) {
    const std::uint64_t id = Add(20000);
    const auto stream = package_->OpenDataStream(id);
    Bytes content(20000);
    for (std::size_t position = 0; position < content.size(); position += 2500) {
        EXPECT_EQ(stream->GetPosition(), position);
        EXPECT_EQ(stream->Read(content.data() + position, 2500), 2500U);
        SetHeaderData({1, 2, 3});
        CommitAndExpectFile();
    }
    EXPECT_TRUE(content == streams_[id]);
}

TEST_F(CommitTest, WritesWhatAnOpenStreamHasWritten) {
    const std::uint64_t id = Add(20000);
    const auto stream = package_->OpenDataStream(id);
    for (std::size_t position = 0; position < 20000; position += 2500) {
        const Bytes piece = Format::Pattern(2500, position + 1000);
        EXPECT_EQ(stream->Write(piece.data(), piece.size()), piece.size());
        std::copy(piece.begin(), piece.end(),
                  streams_[id].begin() + static_cast<std::ptrdiff_t>(position));
        SetHeaderData({1, 2, 3});
        CommitAndExpectFile();
    }
}

class OnePageCommitTest : public PackageTest {
protected:
    OnePageCommitTest() : PackageTest({1, 100}) {}
};

TEST_F(OnePageCommitTest, NeedsNoMoreThanAPage) {
    Add(20000);
    SetHeaderData(Format::Pattern(20000, 1));
    CommitAndExpectFile();
    ExpectPackage();
}

TEST_F(OnePageCommitTest, FailsWhileAStreamHasTheOnlyPagePinned) {
    const std::uint64_t id = Add(20000);
    auto stream = package_->OpenDataStream(id);
    std::uint8_t byte = 0;
    ASSERT_EQ(stream->Read(&byte, 1), 1U);
    EXPECT_THROW(package_->Commit(), FileDataCorruptException);
    EXPECT_TRUE(package_->HasChanges());
    stream.Reset();
    CommitAndExpectFile();
}

// ---- Failures -----------------------------------------------------------------------------------

// A package with an open stream, and changes that make the head file grow past the end of the file.
class CommitFailureTest : public PackageTest {
protected:
    void MakeChanges() {
        StartOver();
        Add(8192 + 100);
        Add(300);
        CommitAndExpectFile();
        open_ = package_->OpenDataStream(0);
        std::uint8_t byte = 0;
        ASSERT_EQ(open_->Read(&byte, 1), 1U);
        Delete(1);
        Add(3 * 8192 + 100);
        SetHeaderData(Format::Pattern(20000, 5));
    }

    // The package still works, and commits the pending changes.
    void ExpectThatALaterCommitWorks() {
        EXPECT_TRUE(package_->HasChanges());
        CommitAndExpectFile();
        ExpectPackage();
        EXPECT_TRUE(package_->OpenDataStream(0) == open_);
        Add(2 * 8192);
        CommitAndExpectFile();
        open_.Reset();
    }

    Util::RefPtr<IDataStream> open_;
};

TEST_F(CommitFailureTest, OfAnyTransferLeavesTheChangesForALaterCommit) {
    for (const StdioCall call :
         {StdioCall::Seek, StdioCall::Tell, StdioCall::Read, StdioCall::Write}) {
        for (const std::uint64_t bytesMoved : {0U, 5000U}) {
            std::uint64_t skipped = 0;
            for (;; ++skipped) {
                MakeChanges();
                const StdioFault fault(call, ENOSPC, skipped, 1, bytesMoved);
                bool committed = false;
                try {
                    committed = package_->Commit();
                } catch (const FileIOException& exception) {
                    EXPECT_EQ(exception.errorCode, static_cast<std::uint32_t>(ENOSPC));
                }
                EXPECT_EQ(committed, fault.Failures() == 0);
                if (committed) {
                    open_.Reset();
                    break;
                }
                ExpectThatALaterCommitWorks();
                ASSERT_FALSE(HasFailure()) << "after " << skipped << " calls";
            }
            EXPECT_GT(skipped, 1U);
        }
    }
}

TEST_F(CommitFailureTest, OfReopeningTheFileLeavesTheChangesForALaterCommit) {
    MakeChanges();
    {
        const StdioFault fault(StdioCall::Open, EMFILE);
        EXPECT_EQ(FileErrorOf([this] { package_->Commit(); }), EMFILE);
        EXPECT_EQ(fault.Failures(), 2U);
        std::uint8_t byte = 0;
        EXPECT_EQ(FileErrorOf([&] { open_->Read(&byte, 1); }), 0);
    }
    Format::ExpectFile(path_, streams_, headerData_);  // everything was written before
    ExpectThatALaterCommitWorks();
}

TEST_F(CommitFailureTest, RepeatedLeavesTheChangesForALaterCommit) {
    MakeChanges();
    for (const StdioCall call : {StdioCall::Open, StdioCall::Write, StdioCall::Seek,
                                 StdioCall::Open, StdioCall::Read, StdioCall::Tell}) {
        const StdioFault fault(call, EIO);
        EXPECT_EQ(FileErrorOf([this] { package_->Commit(); }), EIO);
    }
    ExpectThatALaterCommitWorks();
}

TEST_F(CommitFailureTest, FreesNoPageOfTheHeadFileThatALaterCommitNeeds) {
    for (const StdioCall call : {StdioCall::Read, StdioCall::Write}) {
        std::uint64_t failures = 1;
        for (std::uint64_t skipped = 0; failures > 0; ++skipped) {
            MakeChanges();
            {
                const StdioFault fault(call, ENOSPC, skipped);
                try {
                    EXPECT_TRUE(package_->Commit());
                } catch (const FileIOException&) { EXPECT_GT(fault.Failures(), 0U); }
                failures = fault.Failures();
            }
            for (int count = 0; count < 5; ++count) {
                Add(8192);
            }
            CommitAndExpectFile();
            ExpectPackage();
            open_.Reset();
            ASSERT_FALSE(HasFailure()) << "after " << skipped << " calls";
        }
    }
}

// A link table that lacks an entry for a page of its own head file.
TEST_F(CommitTest, OfADamagedHeadFileFailsOnceAndFreesNoPageTwice) {
    SetHeaderData(Format::Pattern(8192, 1));
    package_.Reset();
    PackageImage image = Image();
    ASSERT_EQ(image.links.size(), 2U);
    image.links.pop_back();
    image.links[0] = Format::kChainEnd;
    Format::WriteWholeFile(path_, Format::EncodePackage(image));
    package_ = NewPackage();
    ASSERT_TRUE(package_->Load());

    SetHeaderData({1, 2, 3});
    EXPECT_THROW(package_->Commit(), InvalidParameterException);
    EXPECT_TRUE(package_->HasChanges());
    Add(2 * 8192);
    CommitAndExpectFile();
    ExpectPackage();
}

TEST_F(CommitTest, OfAHeadFileThatClaimsAPageTooManyIsAsAnyOther) {
    Add(10000);
    package_.Reset();
    Bytes file = File();
    Format::StoreInteger(file, 0, 8, 2);      // page count
    Format::StoreInteger(file, 24, 8, 8192);  // data end: a full page, but no next one
    Format::WriteWholeFile(path_, file);
    package_ = NewPackage();
    ASSERT_TRUE(package_->Load());

    SetHeaderData({1, 2, 3});
    CommitAndExpectFile();
}

// The page cache has room for two pages, so most of the pages that a commit writes leave the cache
// before it ends.
class SmallCommitTest : public PackageTest {
protected:
    SmallCommitTest() : PackageTest({2, 100}) {}
};

TEST_F(SmallCommitTest, ThatFailedTwiceOnAFullVolumeSucceedsOnceThereIsRoom) {
    const Bytes later(100000, 'b');
    for (const bool commits : {true, false}) {
        StartOver();
        SetHeaderData(Bytes(100000, 'a'));
        ASSERT_TRUE(package_->Commit());
        SetHeaderData(later);
        for (int times = 0; times < 2; ++times) {
            const StdioFault fault(StdioCall::Write, ENOSPC, 3);
            EXPECT_EQ(FileErrorOf([&] { package_->Commit(); }), ENOSPC);
        }
        if (commits) { EXPECT_TRUE(package_->Commit()); }
        package_.Reset();
        Format::ExpectFile(path_, {}, later);
    }
}

TEST_F(SmallCommitTest, MarkThatCannotBePreparedChangesNothing) {
    const std::uint64_t id = Add(10 * 8192);
    ASSERT_TRUE(package_->Commit());
    const Bytes old = File();
    for (const StdioCall call : {StdioCall::Read, StdioCall::Write}) {
        EXPECT_EQ(Format::ReadStream(*package_, id), streams_[id]);  // page 10 has left the cache
        const StdioFault fault(call, EIO);
        EXPECT_EQ(FileErrorOf([&] { package_->BeginSave(); }), EIO);
        EXPECT_FALSE(package_->HasChanges());
    }
    EXPECT_TRUE(File() == old);
}

// A page that the state does not reach was not read, and may belong to a stream.
TEST_F(CommitTest, LeavesHeadFilePagesAloneThatTheStateDoesNotReach) {
    SetHeaderData(Format::Pattern(20000, 1));
    const std::uint64_t stream = Add(8192);
    package_.Reset();
    const PackageImage image = Image();
    ASSERT_EQ(image.headPages.size(), 3U);
    // Makes the head file claim one more page, which is the stream's.
    Bytes file = File();
    const std::uint64_t last = image.headPages.back().number;
    const std::uint64_t more = image.streams[stream].firstPage;
    const auto put = [&](std::uint64_t page, std::size_t offset, std::uint64_t value) {
        Format::StoreInteger(file, Format::PageOffset(page) + offset, 8, value);
    };
    put(10, 0, 4);
    put(last, 0, more);
    put(last, 8, 8192);
    Format::WriteWholeFile(path_, file);
    package_ = NewPackage();
    ASSERT_TRUE(package_->Load());
    EXPECT_TRUE(package_->IsSound());
    SetHeaderData({1});
    CommitAndExpectFile();
    Add(50000);
    CommitAndExpectFile();
}

}  // namespace Quorvel::Testing
