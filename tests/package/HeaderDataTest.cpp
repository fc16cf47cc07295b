#include "package/PackageTest.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;

using HeaderDataTest = PackageTest;

const std::uint8_t* ReadOnly(const PagedFilePackage& package) {
    return package.GetHeaderData();
}

}  // namespace

TEST_F(HeaderDataTest, IsEmptyAtFirst) {
    EXPECT_EQ(package_->GetHeaderDataSize(), 0U);
    EXPECT_EQ(ReadOnly(*package_), nullptr);
    EXPECT_EQ(package_->GetHeaderData(), nullptr);
}

TEST_F(HeaderDataTest, KeepsItsBytesAndAddsZeroesWhenItGrows) {
    SetHeaderData({1, 2, 3});
    EXPECT_TRUE(package_->SetHeaderDataSize(5));
    EXPECT_EQ(Format::GetHeaderData(*package_), Bytes({1, 2, 3, 0, 0}));
}

TEST_F(HeaderDataTest, AddsZeroesWhereItHadBytesBefore) {
    SetHeaderData({1, 2, 3});
    EXPECT_TRUE(package_->SetHeaderDataSize(1));
    EXPECT_EQ(package_->GetHeaderDataSize(), 1U);
    EXPECT_TRUE(package_->SetHeaderDataSize(3));
    EXPECT_EQ(Format::GetHeaderData(*package_), Bytes({1, 0, 0}));
}

TEST_F(HeaderDataTest, IsNullWhenItIsEmptyAgain) {
    SetHeaderData({1, 2, 3});
    EXPECT_TRUE(package_->SetHeaderDataSize(0));
    EXPECT_EQ(package_->GetHeaderDataSize(), 0U);
    EXPECT_EQ(ReadOnly(*package_), nullptr);
}

TEST_F(HeaderDataTest, IsTheSameToReadAndToWrite) {
    SetHeaderData({1, 2, 3});
    EXPECT_EQ(ReadOnly(*package_), package_->GetHeaderData());
}

TEST_F(HeaderDataTest, IsAChangeWhenResizedOrAccessedForWriting) {
    EXPECT_TRUE(package_->SetHeaderDataSize(0));
    EXPECT_TRUE(package_->HasChanges());
    ASSERT_TRUE(package_->Commit());
    EXPECT_EQ(package_->GetHeaderData(), nullptr);
    EXPECT_TRUE(package_->HasChanges());
}

TEST_F(HeaderDataTest, IsNotAChangeWhenRead) {
    SetHeaderData({1, 2, 3});
    ASSERT_TRUE(package_->Commit());
    EXPECT_EQ(*ReadOnly(*package_), 1);
    EXPECT_EQ(package_->GetHeaderDataSize(), 3U);
    EXPECT_FALSE(package_->HasChanges());
}

TEST_F(HeaderDataTest, IsCommittedAndLoaded) {
    for (const std::size_t size : {0U, 1U, 8U, 8111U, 8112U, 8113U, 50000U}) {
        SetHeaderData(Format::Pattern(size, size));
        CommitAndExpectFile();
        const auto loaded = NewPackage();
        ASSERT_TRUE(loaded->Load());
        EXPECT_TRUE(Format::GetHeaderData(*loaded) == headerData_) << size;
    }
}

}  // namespace Quorvel::Testing
