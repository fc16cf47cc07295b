// The exceptions that the library throws, caught by their classes in a client.
#include <gtest/gtest.h>
#include <quorvel/Quorvel.h>

#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "format/Bytes.h"
#include "package/FullPackage.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

// Fails the test unless the operation throws this class; returns what was thrown.
template <typename Exception, typename Operation>
Exception Caught(const Operation& operation) {
    try {
        operation();
    } catch (const Exception& exception) {
        const std::exception& base = exception;
        EXPECT_STREQ(base.what(), std::exception().what());
        return exception;
    } catch (const std::exception&) {
        ADD_FAILURE() << "caught as another class";
        throw;
    }
    throw std::runtime_error("nothing was thrown");
}

class Errors : public ::testing::Test {
protected:
    PagedFilePackageConfig Config(std::uint64_t capacity = 64) const {
        return {path_.c_str(), capacity, 1000};
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.File("package");
};

// A block with a public Initialize.
class Block : public MultiProcessMemory {
public:
    using MultiProcessMemory::Initialize;
};

}  // namespace

TEST_F(Errors, IncludeFileDataCorruptException) {
    const auto package = CreateFilePackage(Config());
    ASSERT_TRUE(package);
    const std::uint64_t id = package->CreateDataStream(0);
    Caught<FileDataCorruptException>([&] { package->OpenDataStream(id); });
}

TEST_F(Errors, IncludeInvalidParameterException) {
    Format::PackageImage image = Format::LayOutPackage({{0, {}}}, {}, {});
    image.streams[0].firstPage = 900;  // a page that the package does not have
    Format::WriteWholeFile(path_, Format::EncodePackage(image));
    const auto package = OpenFilePackage(Config());
    ASSERT_TRUE(package);
    Caught<InvalidParameterException>([&] { package->DeleteDataStream(0); });
}

TEST_F(Errors, IncludeFileIOException) {
    const auto package = CreateFilePackage(Config(1));
    ASSERT_TRUE(package);
    const std::uint64_t id = package->CreateDataStream(2 * 8192);
    EXPECT_TRUE(package->Commit());
    const auto stream = package->OpenDataStream(id);
    std::filesystem::resize_file(path_, 8192);  // behind the library's back
    char buffer[8192];
    const auto error = Caught<FileIOException>([&] { stream->Read(buffer, sizeof buffer); });
    EXPECT_EQ(error.errorCode, 0U);
}

TEST_F(Errors, IncludeOutOfMemoryException) {
    Format::WriteWholeFile(path_, FullPackage(0));
    const auto package = OpenFilePackage(Config());
    ASSERT_TRUE(package);
    Caught<OutOfMemoryException>([&] { package->CreateDataStream(8192); });
    EXPECT_EQ(package->GetNumberOfDataStreams(), 0U);
}

TEST_F(Errors, IncludeWin32APICallFailedException) {
    const std::string name = UniqueName();
    Block block;
    const auto error =
        Caught<Win32APICallFailedException>([&] { block.Initialize(name.c_str(), 0); });
    EXPECT_NE(error.errorCode, 0U);
}

}  // namespace Quorvel::Testing
