// Runs a sequence of operations on a package and on a plain model of it in memory, and compares the
// two after each. After a commit the file must be sound, and an independent reader must find the
// model's streams in it.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <utility>

#include "format/PackageCheck.h"
#include "fuzz/Pattern.h"
#include "fuzz/Require.h"
#include "quorvel/Exceptions.h"
#include "quorvel/FilePackage.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Fuzz {

namespace {

using Format::Bytes;

constexpr std::size_t kMostStreams = 20;
constexpr std::size_t kMostOpen = 4;
constexpr int kMostOperations = 100;

// Each open stream may pin two pages; an operation needs up to three more.
constexpr std::uint64_t kLeastCapacity = 2 * kMostOpen + 3;

constexpr std::uint64_t kStreamLimits[] = {3, 8, 64};

class Runner {
public:
    Runner(const std::string& path, FuzzedDataProvider& input)
        : path_(path),
          input_(input),
          limit_(input.PickValueInArray(kStreamLimits)),
          capacity_(kLeastCapacity + Number() % 32),
          comparesAlways_(input.ConsumeBool()) {
        Format::WriteWholeFile(path_, {});
        package_ = CreateFilePackage(Config());
        Require(static_cast<bool>(package_), "a package can be created");
    }

    void Run() {
        for (int step = 0; step < kMostOperations && input_.remaining_bytes() > 0; ++step) {
            Step();
            CompareSizes();
            if (comparesAlways_) { CompareContents(); }
        }
        Reopen();
    }

private:
    struct OpenStream {
        Util::RefPtr<IDataStream> stream;
        std::uint64_t position = 0;
    };

    PagedFilePackageConfig Config() const { return {path_.c_str(), capacity_, limit_}; }
    std::uint8_t Number() { return input_.ConsumeIntegral<std::uint8_t>(); }

    void Step();
    void Create();
    void Delete();
    void Open();
    void CloseOne();
    void Read();
    void Write();
    void Seek();
    void SetHeaderData();
    void Commit();
    void Load();
    void Reopen();

    std::uint64_t AnyId();
    std::map<std::uint64_t, OpenStream>::iterator AnyOpen();
    std::uint64_t AnySize();
    void CompareSizes();
    void CompareContents();
    void CompareFile();

    const std::string path_;
    FuzzedDataProvider& input_;
    const std::uint64_t limit_;
    const std::uint64_t capacity_;
    const bool comparesAlways_;  // after each step; otherwise rarely, so that pages stay pinned
    Util::RefPtr<IDataStreamSet> package_;

    std::map<std::uint64_t, Bytes> streams_;
    std::map<std::uint64_t, OpenStream> open_;
    Bytes headerData_;
    bool changed_ = false;  // whether the next commit has something to write
    std::uint8_t fill_ = 0;
};

void Runner::Step() {
    switch (Number() % 16) {
        case 0:
        case 1:
        case 2:
            Create();
            break;
        case 3:
        case 4:
            Delete();
            break;
        case 5:
        case 6:
            Open();
            break;
        case 7:
            CloseOne();
            break;
        case 8:
        case 9:
            Read();
            break;
        case 10:
        case 11:
            Write();
            break;
        case 12:
            Seek();
            break;
        case 13:
            SetHeaderData();
            break;
        case 14:
            Commit();
            break;
        default:
            Number() % 2 == 0 ? Load() : Reopen();
            break;
    }
}

// Usually an id in use.
std::uint64_t Runner::AnyId() {
    const std::uint8_t number = Number();
    if (number >= 250 || streams_.empty()) {
        return number == 255 ? kInvalidStreamId : number % (limit_ + 2);
    }
    return std::next(streams_.begin(), number % static_cast<std::ptrdiff_t>(streams_.size()))
        ->first;
}

std::map<std::uint64_t, Runner::OpenStream>::iterator Runner::AnyOpen() {
    return open_.empty()
               ? open_.end()
               : std::next(open_.begin(), Number() % static_cast<std::ptrdiff_t>(open_.size()));
}

std::uint64_t Runner::AnySize() {
    static constexpr std::uint64_t kSizes[] = {0,    1,    100,   4096,  7500,  8191,  8192,
                                               8193, 9000, 16383, 16384, 20000, 65537, 40960};
    const std::uint8_t number = Number();
    return number < 128 ? kSizes[number % std::size(kSizes)]
                        : input_.ConsumeIntegral<std::uint16_t>() % 10000;
}

void Runner::Create() {
    const std::uint64_t size = AnySize();
    if (streams_.size() >= kMostStreams) { return; }
    const std::uint64_t id = package_->CreateDataStream(size);
    if (streams_.size() >= limit_) {
        Require(id == kInvalidStreamId, "no more streams than the limit");
        return;
    }
    std::uint64_t lowest = 0;
    while (streams_.count(lowest) != 0) {
        ++lowest;
    }
    Require(id == lowest, "the lowest free id");
    changed_ = true;
    streams_[id] = PatternOf(size, ++fill_);
    if (size != 0) {
        const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
        Require(stream->Write(streams_[id].data(), size) == size, "a new stream takes its bytes");
    }
}

void Runner::Delete() {
    const std::uint64_t id = AnyId();
    const bool deleted = package_->DeleteDataStream(id);
    Require(deleted == (open_.count(id) == 0), "deleted unless open");
    if (deleted && streams_.erase(id) != 0) {
        changed_ = true;
        CompareContents();
    }
}

void Runner::Open() {
    const std::uint64_t id = AnyId();
    const auto content = streams_.find(id);
    try {
        const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
        Require(static_cast<bool>(stream) == (content != streams_.end()), "opened if it exists");
        if (!stream) { return; }
        Require(!content->second.empty(), "an empty stream can't be opened");
        if (const auto open = open_.find(id); open != open_.end()) {
            Require(open->second.stream.Get() == stream.Get(), "one object for one stream");
        } else if (open_.size() < kMostOpen) {
            Require(stream->GetPosition() == 0, "opened at its start");
            open_[id].stream = stream;
        }
    } catch (const FileDataCorruptException&) {
        Require(content != streams_.end() && content->second.empty(),
                "only empty streams are refused");
    }
}

void Runner::CloseOne() {
    if (const auto open = AnyOpen(); open != open_.end()) { open_.erase(open); }
}

void Runner::Read() {
    const std::uint64_t size = AnySize();
    const auto open = AnyOpen();
    if (open == open_.end()) { return; }
    const Bytes& content = streams_[open->first];
    std::uint64_t& position = open->second.position;
    const std::uint64_t expected = std::min(size, content.size() - position);
    Bytes buffer(size + 1, 0xEE);
    Require(open->second.stream->Read(buffer.data(), size) == expected, "bytes read");
    Require(std::equal(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(expected),
                       content.begin() + static_cast<std::ptrdiff_t>(position)),
            "what was read");
    Require(buffer[expected] == 0xEE, "nothing past what was read");
    position += expected;
}

void Runner::Write() {
    const std::uint64_t size = AnySize();
    const auto open = AnyOpen();
    if (open == open_.end()) { return; }
    Bytes& content = streams_[open->first];
    std::uint64_t& position = open->second.position;
    const std::uint64_t expected = std::min(size, content.size() - position);
    const Bytes bytes = PatternOf(size, ++fill_);
    Require(open->second.stream->Write(bytes.data(), size) == expected, "bytes written");
    std::copy_n(bytes.begin(), expected, content.begin() + static_cast<std::ptrdiff_t>(position));
    position += expected;
}

void Runner::Seek() {
    const std::uint32_t origin = Number() % 4;
    const std::int32_t offset = Number() < 16 ? input_.ConsumeIntegral<std::int32_t>()
                                              : input_.ConsumeIntegralInRange(-20000, 20000);
    const auto open = AnyOpen();
    if (open == open_.end()) { return; }
    const auto position = static_cast<std::int64_t>(open->second.position);
    const auto size = static_cast<std::int64_t>(streams_[open->first].size());
    const std::int64_t from = origin == kSeekFromStart ? 0
                              : origin == kSeekFromEnd ? size
                                                       : position;
    const std::int64_t target = from + offset;
    const bool inside = target >= 0 && target <= size;
    Require(open->second.stream->Seek(origin, offset) == inside, "a seek inside succeeds");
    if (inside) { open->second.position = static_cast<std::uint64_t>(target); }
}

void Runner::SetHeaderData() {
    const std::uint64_t size = AnySize() % 20000;
    Require(package_->SetHeaderDataSize(size), "header data can be resized");
    headerData_.resize(size);
    changed_ = true;
    std::uint8_t* const data = package_->GetHeaderData();
    Require((data == nullptr) == (size == 0), "no header data if and only if it is empty");
    Require(std::equal(headerData_.begin(), headerData_.end(), data), "header data is kept");
    if (Number() % 2 == 0) {
        headerData_ = PatternOf(size, ++fill_);
        std::copy(headerData_.begin(), headerData_.end(), data);
    }
}

void Runner::Commit() {
    Require(package_->Commit(), "a commit succeeds");
    if (changed_) {
        changed_ = false;
        CompareFile();
    }
}

void Runner::Load() {
    if (!open_.empty()) {
        Require(!package_->Load(), "not reloaded while a stream is open");
        return;
    }
    // GetHeaderData counts as a change. Without a change, a commit does not write back the streams'
    // bytes.
    package_->GetHeaderData();
    changed_ = true;
    Commit();
    Require(package_->Load(), "what was committed can be loaded");
    CompareContents();
}

void Runner::Reopen() {
    const auto left = std::exchange(open_, {});
    package_.Reset();
    for (const auto& [id, open] : left) {
        std::uint8_t byte = 0;
        Require(open.stream->Read(&byte, 1) == 0 && open.stream->Write(&byte, 1) == 0,
                "nothing to read or write without a package");
    }
    changed_ = false;
    CompareFile();
    package_ = OpenFilePackage(Config());
    Require(static_cast<bool>(package_), "the package can be opened again");
    CompareContents();
}

void Runner::CompareSizes() {
    Require(package_->GetNumberOfDataStreams() == streams_.size(), "number of streams");
    Require(package_->GetDataStreamId(streams_.size()) == kInvalidStreamId, "no more ids");
    std::uint64_t total = 0;
    std::uint64_t index = 0;
    for (const auto& [id, content] : streams_) {
        Require(package_->GetDataStreamId(index++) == id, "ids in order");
        total += content.size();
    }
    Require(package_->GetTotalDataSize() == total, "total size");
    Require(package_->GetHeaderDataSize() == headerData_.size(), "size of the header data");
    for (const auto& [id, open] : open_) {
        Require(open.stream->GetSize() == streams_[id].size(), "a stream's size");
        Require(open.stream->GetPosition() == open.position, "a stream's position");
    }
}

// Reads whole streams; an open stream keeps its position.
void Runner::CompareContents() {
    for (const auto& [id, content] : streams_) {
        if (content.empty()) { continue; }
        const Util::RefPtr<IDataStream> stream = package_->OpenDataStream(id);
        const std::uint64_t position = stream->GetPosition();
        Require(stream->Seek(kSeekFromStart, 0), "a stream has a start");
        Bytes buffer(content.size());
        Require(stream->Read(buffer.data(), buffer.size()) == buffer.size(), "a stream's length");
        Require(buffer == content, "a stream's bytes");
        Require(stream->Seek(kSeekFromStart, static_cast<std::int32_t>(position)),
                "a stream can return to its position");
    }
    const IDataStreamSet& reading = *package_;
    Require(std::equal(headerData_.begin(), headerData_.end(), reading.GetHeaderData()),
            "header data");
}

void Runner::CompareFile() {
    const Format::PackageImage image = Format::ReadPackage(Format::ReadWholeFile(path_), limit_);
    Require(Format::CheckPackage(image).empty(), "the file is sound");
    Require(image.headerData == headerData_, "the file's header data");
    Require(Format::ReadAllStreams(image) == streams_, "the file's streams");
}

}  // namespace

}  // namespace Quorvel::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Quorvel;
    static const Testing::TemporaryDirectory directory;
    static const std::string path = directory.File("package");
    FuzzedDataProvider input(data, size);
    Fuzz::Runner(path, input).Run();
    return 0;
}
