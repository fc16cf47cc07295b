#include <cerrno>
#include <filesystem>

#include "support/StdioFaults.h"
#include "tool/ToolTest.h"

// Commands whose calls of the file system fail, one after the other.
namespace Quorvel::Tool {
namespace {

using Testing::StdioCall;
using Testing::StdioFault;

class ToolFaultsTest : public ToolTest {
protected:
    ToolFaultsTest() {
        MakeCache({{"new", {5, 5, 5}}, {"bb", Format::Bytes(3000, 4), false, {2004, 1, 1}}});
        std::filesystem::create_directory(other_);
        std::filesystem::rename(CacheFile(), other_ + "/vornFxoCache.dat");
        MakeCache(ThreeEffects());
        old_ = FileBytes();
        oldContent_ = Content();
    }

    // The effects of the cache, whose file must be sound.
    std::string Content() {
        EXPECT_EQ(Run({"list", cache_, "--long"}), kDone) << err_;
        EXPECT_THAT(Format::CheckEffectCache(FileBytes()), testing::IsEmpty());
        return out_;
    }

    // Lets each call fail in turn, first alone, then with all calls after it.
    void ExpectOldOrNew(const std::vector<std::string>& command) {
        for (const StdioCall call : {StdioCall::Open, StdioCall::Close, StdioCall::Seek,
                                     StdioCall::Read, StdioCall::Write}) {
            for (const std::uint64_t failures : {std::uint64_t{1}, StdioFault::kEveryLaterCall}) {
                // If only the first attempt to open a file fails, the library makes it anew.
                if (call == StdioCall::Open && failures == 1) { continue; }
                ExpectOldOrNew(command, call, failures);
            }
        }
    }

    const std::string other_ = File("other");

private:
    void ExpectOldOrNew(const std::vector<std::string>& command, StdioCall call,
                        std::uint64_t failures) {
        bool hasFailed = true;
        for (std::uint64_t skipped = 0; hasFailed; ++skipped) {
            SCOPED_TRACE(testing::Message() << command[0] << ", call " << static_cast<int>(call)
                                            << " after " << skipped << ", " << failures);
            Format::WriteWholeFile(CacheFile(), old_);
            int result = kDone;
            {
                const StdioFault fault(call, EIO, skipped, failures);
                result = Run(command);
                hasFailed = fault.Failures() > 0;
            }
            EXPECT_TRUE(hasFailed || result == kDone) << err_;
            const std::string content = Content();
            EXPECT_EQ(content == oldContent_, result != kDone) << content;
            EXPECT_FALSE(std::filesystem::exists(CacheFile() + "-journal"));
            ASSERT_FALSE(HasFailure());
        }
    }

    Format::Bytes old_;
    std::string oldContent_;
};

TEST_F(ToolFaultsTest, PruneLeavesTheOldStateOrTheNewOne) {
    ExpectOldOrNew({"prune", cache_, "--max-effects", "1"});
}

TEST_F(ToolFaultsTest, ClearLeavesTheOldStateOrTheNewOne) {
    ExpectOldOrNew({"clear", cache_, "--yes"});
}

TEST_F(ToolFaultsTest, MergeLeavesTheOldStateOrTheNewOne) {
    ExpectOldOrNew({"merge", cache_, other_});
}

// The content stays the same whether the command fails or not.
TEST_F(ToolFaultsTest, CompactKeepsTheContent) {
    const Format::Bytes old = FileBytes();
    const std::string content = Content();
    int failed = 0;
    for (const StdioCall call : {StdioCall::Close, StdioCall::Seek, StdioCall::Write}) {
        bool hasFailed = true;
        for (std::uint64_t skipped = 0; hasFailed; ++skipped) {
            Format::WriteWholeFile(CacheFile(), old);
            {
                const StdioFault fault(call, EIO, skipped);
                failed += Run({"compact", cache_}) == kFailed ? 1 : 0;
                hasFailed = fault.Failures() > 0;
            }
            EXPECT_EQ(Content(), content);
            ASSERT_FALSE(HasFailure()) << static_cast<int>(call) << " after " << skipped;
        }
    }
    EXPECT_GT(failed, 20);
}

}  // namespace
}  // namespace Quorvel::Tool
