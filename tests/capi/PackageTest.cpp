// Packages through the C functions.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "capi/Handles.h"
#include "format/Bytes.h"
#include "format/PackageWriter.h"
#include "package/FullPackage.h"
#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

using MakePackage = decltype(&quorvel_package_open);

class CPackage : public ::testing::Test {
protected:
    PackageHandle Create(std::uint64_t cachePages = 64, std::uint64_t streamLimit = 1000) const {
        quorvel_package* package = nullptr;
        EXPECT_EQ(quorvel_package_create(path_.c_str(), cachePages, streamLimit, &package),
                  QUORVEL_OK);
        return PackageHandle(package);
    }

    PackageHandle Open() const {
        quorvel_package* package = nullptr;
        EXPECT_EQ(quorvel_package_open(path_.c_str(), 64, 1000, &package), QUORVEL_OK);
        return PackageHandle(package);
    }

    // The status of a call that must not make a package.
    static quorvel_status Refusal(MakePackage make, const std::string& path) {
        int other = 0;
        auto* package = reinterpret_cast<quorvel_package*>(&other);
        const quorvel_status status = make(path.c_str(), 64, 1000, &package);
        EXPECT_EQ(package, nullptr);
        return status;
    }

    static std::uint64_t CreateStream(const PackageHandle& package, std::uint64_t size) {
        std::uint64_t id = 0;
        EXPECT_EQ(quorvel_package_create_stream(package.get(), size, &id), QUORVEL_OK);
        return id;
    }

    static std::uint64_t AddStream(const PackageHandle& package, const std::string& text) {
        const std::uint64_t id = CreateStream(package, text.size());
        std::size_t moved = 0;
        EXPECT_EQ(
            quorvel_stream_write(OpenStream(package, id).get(), text.data(), text.size(), &moved),
            QUORVEL_OK);
        EXPECT_EQ(moved, text.size());
        return id;
    }

    static std::string ReadStream(const PackageHandle& package, std::uint64_t id) {
        const StreamHandle stream = OpenStream(package, id);
        std::string text(static_cast<std::size_t>(quorvel_stream_size(stream.get())), '\0');
        std::size_t moved = 0;
        EXPECT_EQ(quorvel_stream_read(stream.get(), text.data(), text.size(), &moved), QUORVEL_OK);
        EXPECT_EQ(moved, text.size());
        return text;
    }

    // The status of opening a stream, which must fail.
    static quorvel_status StreamRefusal(const PackageHandle& package, std::uint64_t id) {
        int other = 0;
        auto* stream = reinterpret_cast<quorvel_stream*>(&other);
        const quorvel_status status = quorvel_stream_open(package.get(), id, &stream);
        EXPECT_EQ(stream, nullptr);
        return status;
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.File("package");
};

}  // namespace

TEST_F(CPackage, ReadsBackWhatItHasCommitted) {
    PackageHandle package = Create();
    const std::uint64_t first = AddStream(package, "kept between runs");
    const std::uint64_t second = AddStream(package, std::string(100000, 'x'));
    EXPECT_EQ(quorvel_package_write_header(package.get(), "head", 4), QUORVEL_OK);
    EXPECT_EQ(quorvel_package_commit(package.get()), QUORVEL_OK);

    const PackageHandle reader = Open();
    EXPECT_EQ(quorvel_package_stream_count(reader.get()), 2U);
    EXPECT_EQ(quorvel_package_total_size(reader.get()), 100017U);
    EXPECT_EQ(quorvel_package_stream_id(reader.get(), 0), first);
    EXPECT_EQ(quorvel_package_stream_id(reader.get(), 1), second);
    EXPECT_EQ(quorvel_package_stream_id(reader.get(), 2), QUORVEL_NO_STREAM);
    EXPECT_EQ(ReadStream(reader, first), "kept between runs");
    EXPECT_EQ(ReadStream(reader, second), std::string(100000, 'x'));
}

TEST_F(CPackage, CommitsWhenItIsClosed) {
    PackageHandle package = Create();
    const std::uint64_t id = AddStream(package, "text");
    EXPECT_EQ(quorvel_package_stream_count(Open().get()), 0U);
    package.reset();
    EXPECT_EQ(ReadStream(Open(), id), "text");
}

TEST_F(CPackage, SeesAnothersCommitAfterALoad) {
    const PackageHandle writer = Create();
    const PackageHandle reader = Open();
    const std::uint64_t id = AddStream(writer, "text");
    EXPECT_EQ(quorvel_package_commit(writer.get()), QUORVEL_OK);
    EXPECT_EQ(StreamRefusal(reader, id), QUORVEL_ERROR_NOT_FOUND);
    EXPECT_EQ(quorvel_package_load(reader.get()), QUORVEL_OK);
    EXPECT_EQ(ReadStream(reader, id), "text");
}

TEST_F(CPackage, DoesNotLoadWhileAStreamIsOpen) {
    const PackageHandle package = Create();
    const std::uint64_t id = AddStream(package, "text");
    EXPECT_EQ(quorvel_package_commit(package.get()), QUORVEL_OK);
    StreamHandle one = OpenStream(package, id);
    StreamHandle other = OpenStream(package, id);
    EXPECT_EQ(quorvel_package_load(package.get()), QUORVEL_ERROR_BUSY);
    one.reset();
    EXPECT_EQ(quorvel_package_load(package.get()), QUORVEL_ERROR_BUSY);
    other.reset();
    EXPECT_EQ(quorvel_package_load(package.get()), QUORVEL_OK);
}

TEST_F(CPackage, DoesNotLoadADamagedFile) {
    const PackageHandle package = Create();
    const std::uint64_t id = AddStream(package, "text");
    EXPECT_EQ(quorvel_package_commit(package.get()), QUORVEL_OK);
    std::filesystem::resize_file(path_, 100);
    EXPECT_EQ(quorvel_package_load(package.get()), QUORVEL_ERROR_DAMAGED);
    EXPECT_EQ(quorvel_package_stream_id(package.get(), 0), id);
}

TEST_F(CPackage, KeepsHeaderData) {
    const PackageHandle package = Create();
    std::size_t size = 1;
    EXPECT_EQ(quorvel_package_read_header(nullptr, nullptr, 0, &size), QUORVEL_ERROR_ARGUMENT);
    EXPECT_EQ(size, 0U);
    size = 1;
    EXPECT_EQ(quorvel_package_header_size(package.get()), 0U);
    EXPECT_EQ(quorvel_package_read_header(package.get(), nullptr, 0, &size), QUORVEL_OK);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(quorvel_package_write_header(package.get(), "head", 4), QUORVEL_OK);
    EXPECT_EQ(quorvel_package_header_size(package.get()), 4U);
    char buffer[] = "......";
    EXPECT_EQ(quorvel_package_read_header(package.get(), buffer, 3, &size),
              QUORVEL_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 4U);
    EXPECT_STREQ(buffer, "......");
    EXPECT_EQ(quorvel_package_read_header(package.get(), buffer, 6, &size), QUORVEL_OK);
    EXPECT_EQ(size, 4U);
    EXPECT_STREQ(buffer, "head..");
    EXPECT_EQ(quorvel_package_write_header(package.get(), "head", SIZE_MAX),
              QUORVEL_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(quorvel_package_commit(package.get()), QUORVEL_OK);
    EXPECT_EQ(quorvel_package_header_size(Open().get()), 4U);
    EXPECT_EQ(quorvel_package_write_header(package.get(), nullptr, 0), QUORVEL_OK);
    EXPECT_EQ(quorvel_package_header_size(package.get()), 0U);
}

TEST_F(CPackage, DeletesStreams) {
    const PackageHandle package = Create();
    const std::uint64_t id = AddStream(package, "text");
    StreamHandle stream = OpenStream(package, id);
    EXPECT_EQ(quorvel_package_delete_stream(package.get(), id), QUORVEL_ERROR_BUSY);
    EXPECT_EQ(quorvel_package_stream_count(package.get()), 1U);
    stream.reset();
    EXPECT_EQ(quorvel_package_delete_stream(package.get(), id), QUORVEL_OK);
    EXPECT_EQ(quorvel_package_stream_count(package.get()), 0U);
    EXPECT_EQ(quorvel_package_delete_stream(package.get(), id), QUORVEL_ERROR_NOT_FOUND);
    EXPECT_EQ(StreamRefusal(package, id), QUORVEL_ERROR_NOT_FOUND);
}

TEST_F(CPackage, MovesInAStream) {
    const PackageHandle package = Create();
    const StreamHandle stream = OpenStream(package, AddStream(package, "0123456789"));
    const auto seek = [&](std::int64_t offset, quorvel_origin origin) {
        return quorvel_stream_seek(stream.get(), offset, origin);
    };
    const auto position = [&] { return quorvel_stream_position(stream.get()); };
    EXPECT_EQ(quorvel_stream_size(stream.get()), 10U);
    EXPECT_EQ(position(), 0U);
    EXPECT_EQ(seek(4, QUORVEL_FROM_START), QUORVEL_OK);
    EXPECT_EQ(seek(3, QUORVEL_FROM_CURRENT), QUORVEL_OK);
    EXPECT_EQ(position(), 7U);
    EXPECT_EQ(seek(-2, QUORVEL_FROM_END), QUORVEL_OK);
    EXPECT_EQ(position(), 8U);
    char letters[5] = "....";
    std::size_t moved = 0;
    EXPECT_EQ(quorvel_stream_read(stream.get(), letters, 4, &moved), QUORVEL_OK);
    EXPECT_EQ(moved, 2U);
    EXPECT_STREQ(letters, "89..");
    EXPECT_EQ(position(), 10U);
    EXPECT_EQ(quorvel_stream_write(stream.get(), letters, 1, &moved), QUORVEL_OK);
    EXPECT_EQ(moved, 0U);

    EXPECT_EQ(seek(5, QUORVEL_FROM_START), QUORVEL_OK);
    constexpr std::int64_t k4GiB = std::int64_t{1} << 32;  // its low 32 bits are 0
    for (const std::int64_t outside : {std::int64_t{-6}, std::int64_t{6}, k4GiB, -k4GiB}) {
        EXPECT_EQ(seek(outside, QUORVEL_FROM_CURRENT), QUORVEL_ERROR_ARGUMENT) << outside;
    }
    EXPECT_EQ(seek(1, static_cast<quorvel_origin>(3)), QUORVEL_ERROR_ARGUMENT);
    EXPECT_EQ(position(), 5U);
}

TEST_F(CPackage, GivesAllHandlesOfAStreamOnePosition) {
    const PackageHandle package = Create();
    const std::uint64_t id = AddStream(package, "0123456789");
    const StreamHandle one = OpenStream(package, id);
    EXPECT_EQ(quorvel_stream_seek(one.get(), 4, QUORVEL_FROM_START), QUORVEL_OK);
    const StreamHandle other = OpenStream(package, id);
    EXPECT_EQ(quorvel_stream_position(other.get()), 4U);
}

TEST_F(CPackage, LeavesStreamsThatOutliveItEmpty) {
    PackageHandle package = Create();
    const StreamHandle stream = OpenStream(package, AddStream(package, std::string(10000, 'x')));
    package.reset();
    char letter = '.';
    std::size_t moved = 1;
    EXPECT_EQ(quorvel_stream_size(stream.get()), 0U);
    EXPECT_EQ(quorvel_stream_read(stream.get(), &letter, 1, &moved), QUORVEL_OK);
    EXPECT_EQ(moved, 0U);
    EXPECT_EQ(quorvel_stream_seek(stream.get(), 0, QUORVEL_FROM_START), QUORVEL_ERROR_ARGUMENT);
}

TEST_F(CPackage, RefusesStreamsThatAreTooLargeOrTooMany) {
    const PackageHandle package = Create(64, 1);
    std::uint64_t id = 0;
    EXPECT_EQ(quorvel_package_create_stream(package.get(),
                                            QUORVEL_LARGEST_STREAM + std::uint64_t{1}, &id),
              QUORVEL_ERROR_ARGUMENT);
    EXPECT_EQ(id, QUORVEL_NO_STREAM);
    CreateStream(package, 1);
    id = 0;
    EXPECT_EQ(quorvel_package_create_stream(package.get(), 1, &id), QUORVEL_ERROR_LIMIT);
    EXPECT_EQ(id, QUORVEL_NO_STREAM);
    EXPECT_EQ(quorvel_package_stream_count(package.get()), 1U);
}

TEST_F(CPackage, ReportsThatItHasNoMorePages) {
    Format::WriteWholeFile(path_, FullPackage(0));
    const PackageHandle package = Open();
    std::uint64_t id = 0;
    EXPECT_EQ(quorvel_package_create_stream(package.get(), 8192, &id), QUORVEL_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(id, QUORVEL_NO_STREAM);
}

TEST_F(CPackage, DoesNotOpenAnEmptyStream) {
    const PackageHandle package = Create();
    EXPECT_EQ(StreamRefusal(package, CreateStream(package, 0)), QUORVEL_ERROR_DAMAGED);
}

TEST_F(CPackage, DoesNotOpenAMissingFile) {
    EXPECT_EQ(Refusal(&quorvel_package_open, path_), QUORVEL_ERROR_IO);
    EXPECT_EQ(quorvel_last_system_error(), static_cast<std::uint32_t>(ENOENT));
    EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(CPackage, DoesNotOpenAFileThatHoldsNoPackage) {
    std::ofstream(path_) << "not a package";
    EXPECT_EQ(Refusal(&quorvel_package_open, path_), QUORVEL_ERROR_DAMAGED);
    EXPECT_EQ(std::filesystem::file_size(path_), 13U);
}

// A file that can't be read is not damaged.
TEST_F(CPackage, ReportsThatItsFileCantBeRead) {
    const PackageHandle package = Create();
    EXPECT_EQ(quorvel_package_write_header(package.get(), "head", 4), QUORVEL_OK);
    AddStream(package, "text");
    EXPECT_EQ(quorvel_package_commit(package.get()), QUORVEL_OK);
    std::vector<PackageHandle> opened;  // closing them makes calls too
    const auto open = [&] {
        quorvel_package* other = nullptr;
        const quorvel_status status = quorvel_package_open(path_.c_str(), 64, 1000, &other);
        EXPECT_EQ(other != nullptr, status == QUORVEL_OK);
        opened.emplace_back(other);
        return status;
    };
    const auto load = [&] { return quorvel_package_load(package.get()); };
    const auto expectReports = [](StdioCall call, const auto& operation) {
        std::uint64_t failures = 1;
        for (std::uint64_t skipped = 0; failures > 0; ++skipped) {
            const StdioFault fault(call, EIO, skipped);
            const quorvel_status status = operation();
            failures = fault.Failures();
            EXPECT_EQ(status, failures == 0 ? QUORVEL_OK : QUORVEL_ERROR_IO) << skipped;
            if (failures > 0) {
                EXPECT_EQ(quorvel_last_system_error(), static_cast<std::uint32_t>(EIO));
            }
        }
    };
    for (const StdioCall call :
         {StdioCall::Open, StdioCall::Seek, StdioCall::Tell, StdioCall::Read}) {
        expectReports(call, open);
        expectReports(call, load);
    }
}

TEST_F(CPackage, IsNotCreatedWhereItsFileCantBe) {
    EXPECT_EQ(Refusal(&quorvel_package_create, directory_.File("no/package")), QUORVEL_ERROR_IO);
    EXPECT_EQ(quorvel_last_system_error(), static_cast<std::uint32_t>(ENOENT));
    EXPECT_EQ(Refusal(&quorvel_package_create, directory_.Path().string()), QUORVEL_ERROR_IO);
    EXPECT_NE(quorvel_last_system_error(), 0U);
    {
        const StdioFault fault(StdioCall::Open, EACCES);
        EXPECT_EQ(Refusal(&quorvel_package_create, path_), QUORVEL_ERROR_IO);
        EXPECT_EQ(quorvel_last_system_error(), static_cast<std::uint32_t>(EACCES));
    }
    const StdioFault fault(StdioCall::Write, ENOSPC);
    EXPECT_EQ(Refusal(&quorvel_package_create, path_), QUORVEL_ERROR_IO);
    EXPECT_EQ(quorvel_last_system_error(), static_cast<std::uint32_t>(ENOSPC));
}

TEST_F(CPackage, ReportsAFieldOutOfRange) {
    Format::PackageImage image = Format::LayOutPackage({{0, {}}}, {}, {});
    image.streams[0].firstPage = 900;  // a page that the package does not have
    Format::WriteWholeFile(path_, Format::EncodePackage(image));
    EXPECT_EQ(quorvel_package_delete_stream(Open().get(), 0), QUORVEL_ERROR_DAMAGED);
    EXPECT_STREQ(quorvel_last_error(),
                 "the file does not hold an intact package: a field is out of range");
}

// A fragment that reaches past its block. No package writes one.
TEST_F(CPackage, ReportsADeletionThatLeavesSpaceInUse) {
    Format::PackageImage image = Format::LayOutPackage({{0, Format::Bytes(8191)}}, {}, {});
    image.fragments[0].offset = 65000;
    Format::WriteWholeFile(path_, Format::EncodePackage(image));
    const PackageHandle package = Open();
    EXPECT_EQ(quorvel_package_delete_stream(package.get(), 0), QUORVEL_ERROR_DAMAGED);
    EXPECT_STREQ(quorvel_last_error(),
                 "the file does not hold an intact package: some space was not freed");
    EXPECT_EQ(quorvel_package_stream_count(package.get()), 0U);
}

TEST_F(CPackage, ReportsAFailingCommitAndCommitsLater) {
    PackageHandle package = Create();
    const std::uint64_t id = AddStream(package, "text");
    {
        const StdioFault fault(StdioCall::Write, ENOSPC);
        EXPECT_EQ(quorvel_package_commit(package.get()), QUORVEL_ERROR_IO);
        EXPECT_EQ(quorvel_last_system_error(), static_cast<std::uint32_t>(ENOSPC));
    }
    EXPECT_EQ(quorvel_package_commit(package.get()), QUORVEL_OK);
    EXPECT_EQ(ReadStream(Open(), id), "text");
}

TEST_F(CPackage, ReportsBytesThatCantBeReadOrWritten) {
    const PackageHandle package = Create(1);
    const std::uint64_t id = CreateStream(package, 3 * 8192);
    EXPECT_EQ(quorvel_package_commit(package.get()), QUORVEL_OK);
    const StreamHandle stream = OpenStream(package, id);
    std::string buffer(3 * 8192, 'x');
    {
        const StdioFault fault(StdioCall::Read, EIO);
        std::size_t moved = 1;
        EXPECT_EQ(quorvel_stream_read(stream.get(), buffer.data(), buffer.size(), &moved),
                  QUORVEL_ERROR_IO);
        EXPECT_EQ(quorvel_last_system_error(), static_cast<std::uint32_t>(EIO));
        EXPECT_EQ(moved, 0U);
    }
    {
        const StdioFault fault(StdioCall::Write, ENOSPC);
        std::size_t moved = 1;
        EXPECT_EQ(quorvel_stream_write(stream.get(), buffer.data(), buffer.size(), &moved),
                  QUORVEL_ERROR_IO);
        EXPECT_EQ(quorvel_last_system_error(), static_cast<std::uint32_t>(ENOSPC));
        EXPECT_EQ(moved, 0U);
    }
}

}  // namespace Quorvel::Testing
