#include "platform/PlainFile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

class PlainFileTest : public ::testing::Test {
protected:
    // The error of a call that returns no file; 0 if it returns one, which is closed.
    static int ErrorOf(std::FILE* (*open)(const char*) noexcept, const std::string& path) {
        errno = 0;
        std::FILE* const file = open(path.c_str());
        const int error = errno;
        if (!file) { return error; }
        std::fclose(file);
        return 0;
    }
    static int ErrorOfCreate(const std::string& path) {
        return ErrorOf(&Platform::CreateNewFile, path);
    }
    static int ErrorOfOpen(const std::string& path) {
        return ErrorOf(&Platform::OpenPlainFile, path);
    }

    void Write(const std::string& text) const { std::ofstream(path_, std::ios::binary) << text; }
    std::string Content() const {
        std::ifstream file(path_, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const TemporaryDirectory directory_;
    const std::string path_ = directory_.File("file");
};

using CreateNewFile = PlainFileTest;
using OpenPlainFile = PlainFileTest;

}  // namespace

// Line ends would show that the file is open in text mode.
TEST_F(CreateNewFile, MakesAFileForWriting) {
    std::FILE* const file = Platform::CreateNewFile(path_.c_str());
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::fwrite("a\nb\r\n\x1A", 6, 1, file), 1u);
    EXPECT_EQ(std::fclose(file), 0);
    EXPECT_EQ(Content(), "a\nb\r\n\x1A");
}

TEST_F(CreateNewFile, RefusesToReplaceAFile) {
    Write("old");
    EXPECT_EQ(ErrorOfCreate(path_), EEXIST);
    EXPECT_EQ(Content(), "old");
}

TEST_F(CreateNewFile, RefusesToReplaceAFolder) {
    std::filesystem::create_directory(path_);
    EXPECT_EQ(ErrorOfCreate(path_), EEXIST);
}

TEST_F(CreateNewFile, NeedsTheFolder) {
    EXPECT_EQ(ErrorOfCreate(directory_.File("missing/file")), ENOENT);
    EXPECT_EQ(ErrorOfCreate(""), ENOENT);
}

TEST_F(CreateNewFile, LeavesNoFileThatItCouldNotOpen) {
    {
        const StdioFault fault(StdioCall::Open, EMFILE);
        EXPECT_EQ(ErrorOfCreate(path_), EMFILE);
        EXPECT_EQ(fault.Failures(), 1u);
    }
    EXPECT_FALSE(std::filesystem::exists(path_));
    EXPECT_EQ(ErrorOfCreate(path_), 0);
}

TEST_F(OpenPlainFile, OpensAFileForReading) {
    Write("a\nb\r\n\x1A.");
    std::FILE* const file = Platform::OpenPlainFile(path_.c_str());
    ASSERT_NE(file, nullptr);
    char bytes[8] = {};
    EXPECT_EQ(std::fread(bytes, 1, sizeof bytes, file), 7u);
    EXPECT_STREQ(bytes, "a\nb\r\n\x1A.");
    EXPECT_EQ(std::fclose(file), 0);
}

TEST_F(OpenPlainFile, MissesAFile) {
    EXPECT_EQ(ErrorOfOpen(path_), ENOENT);
    EXPECT_EQ(ErrorOfOpen(directory_.File("missing/file")), ENOENT);
    EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(OpenPlainFile, RefusesAFolder) {
    std::filesystem::create_directory(path_);
    EXPECT_EQ(ErrorOfOpen(path_), ELOOP);
}

TEST_F(OpenPlainFile, ReportsWhyTheLibraryCannotOpenIt) {
    Write("old");
    const StdioFault fault(StdioCall::Open, EMFILE);
    EXPECT_EQ(ErrorOfOpen(path_), EMFILE);
    EXPECT_EQ(fault.Failures(), 1u);
}

// An open file can be opened again, renamed and removed, on Windows too.
TEST_F(OpenPlainFile, SharesTheFile) {
    std::FILE* const made = Platform::CreateNewFile(path_.c_str());
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(ErrorOfOpen(path_), 0);
    std::FILE* const opened = Platform::OpenPlainFile(path_.c_str());
    ASSERT_NE(opened, nullptr);
    const std::string other = directory_.File("other");
    std::filesystem::rename(path_, other);
    EXPECT_EQ(ErrorOfOpen(path_), ENOENT);
    EXPECT_TRUE(std::filesystem::remove(other));
    std::fclose(made);
    std::fclose(opened);
}

}  // namespace Quorvel::Testing
