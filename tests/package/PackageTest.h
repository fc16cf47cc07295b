#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <ostream>
#include <string>

#include "format/LibraryPackage.h"
#include "format/TestData.h"
#include "package/PagedFilePackage.h"
#include "quorvel/Exceptions.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

// A package in its own folder, with its expected contents.
class PackageTest : public ::testing::Test {
protected:
    explicit PackageTest(Format::LibrarySettings settings = {}) : settings_(settings) {
        package_ = NewPackage();
        package_->Create();
    }

    // Starts over with an empty package in a new file.
    void StartOver() {
        package_.Reset();
        streams_.clear();
        headerData_.clear();
        std::filesystem::remove(path_);
        package_ = NewPackage();
        package_->Create();
    }

    // A second package over the same file, neither created nor loaded.
    Util::RefPtr<PagedFilePackage> NewPackage() const {
        return new PagedFilePackage(
            {path_.c_str(), settings_.pageCacheCapacity, settings_.streamLimit});
    }

    // Adds a stream with content, and returns its id.
    std::uint64_t Add(std::size_t size) {
        const Format::Bytes content = Format::Pattern(size, ++seed_);
        const std::uint64_t id = Format::AddStream(*package_, content);
        streams_[id] = content;
        return id;
    }

    void Delete(std::uint64_t id) {
        ASSERT_TRUE(package_->DeleteDataStream(id));
        streams_.erase(id);
    }

    void SetHeaderData(const Format::Bytes& headerData) {
        Format::SetHeaderData(*package_, headerData);
        headerData_ = headerData;
    }

    // Fails the test unless the package in memory has the expected contents.
    void ExpectPackage() {
        Format::ExpectStreams(*package_, streams_);
        EXPECT_TRUE(Format::GetHeaderData(*package_) == headerData_);
    }

    // Commits. Fails the test unless the file is sound and has the expected contents.
    void CommitAndExpectFile() {
        ASSERT_TRUE(package_->Commit());
        EXPECT_FALSE(package_->HasChanges());
        Format::ExpectFile(path_, streams_, headerData_);
    }

    Format::Bytes File() const { return Format::ReadWholeFile(path_); }
    Format::PackageImage Image() const { return Format::ReadPackage(File()); }

    // Releases the package, applies `change` to the file's contents and loads the file.
    void Edit(const std::function<void(Format::PackageImage&)>& change) {
        package_.Reset();
        Format::PackageImage image = Image();
        change(image);
        Format::WriteWholeFile(path_, Format::EncodePackage(image));
        package_ = NewPackage();
        ASSERT_TRUE(package_->Load());
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.File("package");
    Format::LibrarySettings settings_;
    Util::RefPtr<PagedFilePackage> package_;
    std::map<std::uint64_t, Format::Bytes> streams_;
    Format::Bytes headerData_;

private:
    std::uint64_t seed_ = 0;
};

// A way to damage a package, for INSTANTIATE_TEST_SUITE_P.
struct Damage {
    std::string name;
    void (*apply)(Format::PackageImage&);
};
inline void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.name;
}

// The error code of the FileIOException that the operation throws. Any other outcome is a failure.
template <typename Operation>
int FileErrorOf(const Operation& operation) {
    try {
        operation();
    } catch (const FileIOException& exception) { return static_cast<int>(exception.errorCode); }
    ADD_FAILURE() << "no FileIOException was thrown";
    return -1;
}

}  // namespace Quorvel::Testing
