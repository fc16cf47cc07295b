// A package through its whole life, with each of its file system calls and allocations failing in
// turn.
//
// A package has no journal. A failure before or during a commit may leave a file that cannot be
// opened, or one that mixes two states, unless a later commit succeeds. What always holds:
//
// - if nothing was changed since the last commit, its state stays in the file, even if calls fail;
// - an operation that throws has changed nothing but the bytes that it was to write. The package
//   stays usable, and the next Commit that returns true writes all of it to the file;
// - a half-written file is refused, or opens as a package that can be read, changed and created
//   again.
#include <gtest/gtest.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <map>
#include <new>
#include <optional>
#include <string>

#include "faults/Failures.h"
#include "faults/Memory.h"
#include "format/LibraryPackage.h"
#include "format/TestData.h"
#include "quorvel/Exceptions.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;

// The size of most streams: a page and a tail. If the package mistakes one for another, only the
// bytes reveal it.
constexpr std::size_t kStreamSize = 9000;
constexpr Format::LibrarySettings kSettings = {20, 100};

struct Content {
    Bytes bytes;
    bool isKnown;  // false if writing it failed midway
};
using Contents = std::map<std::uint64_t, Content>;

// The contents of a package.
struct Model {
    Contents streams;
    Bytes headerData;
};

// The script, and the package in the state that the script has reached.
class PackageScript {
public:
    PackageScript(const std::string& path, const Failure& failure, std::uint64_t skipped)
        : path_(path), failure_(failure), armed_(std::in_place, failure, skipped) {}

    void Run();

    // Ends the failures. True if there were any.
    bool Disarm() {
        const bool failed = armed_->HasFailed();
        armed_.reset();
        return failed;
    }

    // Commits the package, which must succeed now, and checks its contents.
    void ExpectRecovery();

    // Releases the package and checks the file.
    void ExpectFile();

private:
    // Runs an operation of the library. False if it threw, which only the failure may cause.
    template <typename Operation>
    bool Attempt(const Operation& operation);

    void Create();
    void Open();
    void Reload();
    void Commit();
    void Add(std::size_t size);
    void Delete(std::size_t place);
    void SetHeaderData(std::size_t size);
    void ReadAll();
    void ReadWhileAnotherIsDeleted();
    void Close();

    // True if the script can go on with the package. It can't once a failure may have emptied its
    // file.
    bool IsUsable() const { return package_ && !MayBeGone(); }

    void ExpectCounts() const;
    void ExpectContents(IDataStreamSet& package) const;
    std::optional<Bytes> Read(IDataStreamSet& package, std::uint64_t id) const;
    bool MayBeGone() const { return failure_.MayEmptyFile() && hasFailed_; }
    void NoteFailures() { hasFailed_ = hasFailed_ || armed_->HasFailed(); }

    const std::string path_;
    const Failure failure_;
    std::optional<ArmedFailure> armed_;
    bool hasFailed_ = false;
    Util::RefPtr<IDataStreamSet> package_;
    Model model_;
    std::optional<Model> inFile_;  // unset if the file may hold anything
    std::uint64_t seed_ = 0;
};

void PackageScript::Run() {
    Create();
    for (int count = 0; count < 6; ++count) {
        Add(kStreamSize);
    }
    SetHeaderData(100);
    Commit();
    Reload();
    for (const std::size_t size : {kStreamSize, kStreamSize, std::size_t{500}, std::size_t{8192}}) {
        Add(size);
    }
    Delete(4);
    Delete(1);
    Add(kStreamSize);
    ReadAll();
    Commit();
    ReadWhileAnotherIsDeleted();
    SetHeaderData(9000);
    Commit();
    Reload();
    Close();
    Open();
    ReadAll();
    Delete(0);
    Delete(2);
    Add(kStreamSize);
    Add(20000);
    Commit();
    ReadAll();
}

template <typename Operation>
bool PackageScript::Attempt(const Operation& operation) {
    const std::uint64_t failuresBefore = armed_ ? armed_->Failures() : 0;
    const bool hadFailed = hasFailed_;
    bool threw = true;
    try {
        const LibraryCall call;
        operation();
        threw = false;
    } catch (const FileIOException& exception) {
        EXPECT_FALSE(failure_.isMemory && !hadFailed);
        const auto code = static_cast<int>(exception.errorCode);
        EXPECT_TRUE(code == 0 || code == failure_.error) << code;
    } catch (const std::bad_alloc&) {
        EXPECT_TRUE(failure_.isMemory);
    } catch (const OutOfMemoryException&) {
        EXPECT_TRUE(failure_.isMemory);
    } catch (const std::exception& exception) { ADD_FAILURE() << typeid(exception).name(); }
    if (armed_) {
        NoteFailures();
        // After a failure to reopen the file, no file may be open until the next Commit.
        EXPECT_TRUE(!threw || armed_->Failures() != failuresBefore || hadFailed);
    }
    return !threw;
}

void PackageScript::Create() {
    for (int attempt = 0; attempt < 2 && !package_; ++attempt) {
        EXPECT_TRUE(Attempt([&] { package_ = Format::CreatePackage(path_, kSettings); }));
    }
    EXPECT_TRUE(package_ || hasFailed_);
    model_ = {};
    inFile_.reset();
    if (package_) { inFile_ = model_; }
}

void PackageScript::Open() {
    for (int attempt = 0; attempt < 2 && !package_; ++attempt) {
        EXPECT_TRUE(Attempt([&] { package_ = Format::OpenPackage(path_, kSettings); }));
    }
    EXPECT_TRUE(package_ || hasFailed_);
    if (IsUsable() && inFile_) {
        model_ = *inFile_;
        ExpectContents(*package_);
    } else {
        package_.Reset();
    }
}

void PackageScript::Reload() {
    if (!IsUsable() || !inFile_) {
        return;  // uncommitted changes would be written over the loaded file
    }
    bool loaded = false;
    EXPECT_TRUE(Attempt([&] { loaded = package_->Load(); }));
    EXPECT_TRUE(loaded || hasFailed_);
    ExpectCounts();
}

void PackageScript::Commit() {
    if (!IsUsable()) { return; }
    inFile_.reset();
    bool committed = false;
    const bool returned = Attempt([&] { committed = package_->Commit(); });
    EXPECT_TRUE(!returned || committed);
    if (committed) { inFile_ = model_; }
    ExpectCounts();
}

void PackageScript::Add(std::size_t size) {
    if (!IsUsable()) { return; }
    const Bytes bytes = Format::Pattern(size, ++seed_);
    std::uint64_t id = kInvalidStreamId;
    inFile_.reset();
    if (!Attempt([&] { id = package_->CreateDataStream(size); })) {
        ExpectCounts();
        return;
    }
    ASSERT_NE(id, kInvalidStreamId);
    ASSERT_EQ(model_.streams.count(id), 0U);
    bool written = false;
    Attempt([&] {
        const auto stream = package_->OpenDataStream(id);
        written = stream && stream->Write(bytes.data(), size) == size;
    });
    EXPECT_TRUE(written || hasFailed_);
    model_.streams[id] = {bytes, written};
    ExpectCounts();
}

// Deletes the existing stream at that position in the order of ids.
void PackageScript::Delete(std::size_t place) {
    if (!IsUsable() || model_.streams.size() <= place) { return; }
    const auto deleted = std::next(model_.streams.begin(), static_cast<std::ptrdiff_t>(place));
    bool done = false;
    inFile_.reset();
    const std::uint64_t id = deleted->first;
    if (Attempt([&] { done = package_->DeleteDataStream(id); })) {
        EXPECT_TRUE(done);
        model_.streams.erase(deleted);
    }
    ExpectCounts();
}

void PackageScript::SetHeaderData(std::size_t size) {
    if (!IsUsable()) { return; }
    const Bytes data = Format::Pattern(size, ++seed_);
    inFile_.reset();
    if (Attempt([&] { Format::SetHeaderData(*package_, data); })) { model_.headerData = data; }
    EXPECT_TRUE(Format::GetHeaderData(*package_) == model_.headerData);
}

void PackageScript::ReadAll() {
    if (!IsUsable()) { return; }
    for (const auto& [id, content] : model_.streams) {
        Bytes bytes(content.bytes.size());
        std::uint64_t count = 0;
        const bool returned = Attempt([&, stream = id] {
            const auto opened = package_->OpenDataStream(stream);
            count = opened ? opened->Read(bytes.data(), bytes.size()) : 0;
        });
        if (!returned) { continue; }
        if (IsUsable()) {
            EXPECT_EQ(count, bytes.size()) << "stream " << id;
            EXPECT_TRUE(!content.isKnown || bytes == content.bytes) << "stream " << id;
        }
    }
}

// The tail of the last stream of the usual size moves while the stream is open.
void PackageScript::ReadWhileAnotherIsDeleted() {
    if (!IsUsable() || model_.streams.size() < 2) { return; }
    const auto last =
        std::find_if(model_.streams.rbegin(), model_.streams.rend(),
                     [](const auto& stream) { return stream.second.bytes.size() == kStreamSize; });
    if (last == model_.streams.rend() || last->first == model_.streams.begin()->first) { return; }
    const std::uint64_t id = last->first;
    Util::RefPtr<IDataStream> open;
    Attempt([&] { open = package_->OpenDataStream(id); });
    Delete(0);
    if (!open) { return; }
    const Content& content = model_.streams.at(id);
    Bytes bytes(content.bytes.size());
    std::uint64_t count = 0;
    if (Attempt([&] { count = open->Read(bytes.data(), bytes.size()); }) && !MayBeGone()) {
        bytes.resize(static_cast<std::size_t>(count));
        // Without memory for its new place the stream becomes empty.
        EXPECT_TRUE(count == content.bytes.size() || (count == 0 && hasFailed_)) << count;
        EXPECT_TRUE(!content.isKnown || count == 0 || bytes == content.bytes);
    }
    open.Reset();
}

void PackageScript::Close() {
    if (package_) {
        EXPECT_TRUE(Attempt([&] { package_.Reset(); }));
    }
}

void PackageScript::ExpectCounts() const {
    if (!IsUsable()) { return; }
    std::uint64_t total = 0;
    std::uint64_t index = 0;
    for (const auto& [id, content] : model_.streams) {
        EXPECT_EQ(package_->GetDataStreamId(index++), id);
        total += content.bytes.size();
    }
    EXPECT_EQ(package_->GetNumberOfDataStreams(), index);
    EXPECT_EQ(package_->GetTotalDataSize(), total);
}

std::optional<Bytes> PackageScript::Read(IDataStreamSet& package, std::uint64_t id) const {
    try {
        return Format::ReadStream(package, id);
    } catch (const std::exception&) { return std::nullopt; }
}

void PackageScript::ExpectContents(IDataStreamSet& package) const {
    if (MayBeGone()) { return; }
    EXPECT_EQ(package.GetNumberOfDataStreams(), model_.streams.size());
    if (armed_) { return; }
    for (const auto& [id, content] : model_.streams) {
        const auto bytes = Read(package, id);
        ASSERT_TRUE(bytes) << "stream " << id;
        EXPECT_EQ(bytes->size(), content.bytes.size()) << "stream " << id;
        EXPECT_TRUE(!content.isKnown || *bytes == content.bytes) << "stream " << id;
    }
    EXPECT_TRUE(Format::GetHeaderData(package) == model_.headerData);
}

void PackageScript::ExpectRecovery() {
    if (!IsUsable()) { return; }
    package_->GetHeaderData();
    inFile_.reset();
    ASSERT_TRUE(Attempt([&] { EXPECT_TRUE(package_->Commit()); }));
    inFile_ = model_;
    ExpectContents(*package_);
    for (auto& [id, content] : model_.streams) {
        if (const auto bytes = Read(*package_, id)) { content = {*bytes, true}; }
    }
    std::map<std::uint64_t, Bytes> streams;
    for (const auto& [id, content] : model_.streams) {
        streams[id] = content.bytes;
    }
    Format::ExpectFile(path_, streams, model_.headerData);
}

void PackageScript::ExpectFile() {
    package_.Reset();
    if (const auto opened = Format::OpenPackage(path_, kSettings)) {
        if (inFile_) {
            model_ = *inFile_;
            ExpectContents(*opened);
        }
        while (opened->GetNumberOfDataStreams() != 0) {
            const std::uint64_t id = opened->GetDataStreamId(0);
            Read(*opened, id);
            try {
                EXPECT_TRUE(opened->DeleteDataStream(id));
            } catch (const std::exception&) {
                EXPECT_FALSE(inFile_);
                break;
            }
        }
    } else {
        EXPECT_TRUE(!inFile_ || MayBeGone());
    }
    {
        const auto created = Format::CreatePackage(path_, kSettings);
        ASSERT_TRUE(created);
        Format::AddStream(*created, Format::Pattern(kStreamSize, 1));
    }
    Format::ExpectFile(path_, {{0, Format::Pattern(kStreamSize, 1)}}, {});
}

class PackageFaults : public ::testing::TestWithParam<Failure> {
protected:
    // Runs the script with each call failing in turn, and `check` after each run without failures.
    void ForEach(const std::function<void(PackageScript&)>& check) {
        const TemporaryDirectory directory;
        const std::string path = directory.File("package");
        const std::uint64_t openFiles = CountStdioCalls().openFiles;
        ForEachCall(GetParam(), [&](std::uint64_t skipped) {
            std::filesystem::remove(path);
            bool failed;
            {
                PackageScript script(path, GetParam(), skipped);
                script.Run();
                failed = script.Disarm();
                check(script);
            }
            EXPECT_EQ(CountStdioCalls().openFiles, openFiles);
            return failed;
        });
    }
};

}  // namespace

TEST_P(PackageFaults, LeaveAPackageThatStaysUsableAndCommitsEverything) {
    ForEach([](PackageScript& script) { script.ExpectRecovery(); });
}

TEST_P(PackageFaults, LeaveTheLastCommitInTheFile) {
    ForEach([](PackageScript& script) { script.ExpectFile(); });
}

INSTANTIATE_TEST_SUITE_P(Call, PackageFaults, ::testing::ValuesIn(AllFailures()),
                         [](const auto& test) { return NameOf(test.param); });

}  // namespace Quorvel::Testing
