// Every operation of the two interfaces, called by its slot in the virtual table.
#include "Slots.h"

#include <quorvel/Quorvel.h>

#include <string>

#include "Check.h"

namespace Quorvel::Abi {

namespace {

namespace Set {
constexpr std::size_t kLoad = 4;
constexpr std::size_t kCommit = 5;
constexpr std::size_t kGetTotalDataSize = 6;
constexpr std::size_t kSetHeaderDataSize = 7;
constexpr std::size_t kGetHeaderDataSize = 8;
constexpr std::size_t kGetHeaderDataToRead = 9;
constexpr std::size_t kGetHeaderDataToWrite = 10;
constexpr std::size_t kGetNumberOfDataStreams = 11;
constexpr std::size_t kGetDataStreamId = 12;
constexpr std::size_t kOpenDataStream = 13;
constexpr std::size_t kCreateDataStream = 14;
constexpr std::size_t kDeleteDataStream = 15;
}  // namespace Set

namespace Stream {
constexpr std::size_t kGetPosition = 4;
constexpr std::size_t kGetSize = 5;
constexpr std::size_t kSeek = 6;
constexpr std::size_t kRead = 7;
constexpr std::size_t kWrite = 8;
}  // namespace Stream

// A package held by a bare pointer with one reference.
class BarePackage {
public:
    explicit BarePackage(const char* name) : path_(TemporaryFile(name)) {
        Take(CreateFilePackage(Config()));
    }
    BarePackage(const BarePackage&) = delete;
    BarePackage& operator=(const BarePackage&) = delete;

    PagedFilePackageConfig Config() const { return {path_.c_str(), 64, 1000}; }

    const void* Get() const { return package_; }

    template <typename Result, typename... Arguments>
    Result Call(std::size_t slot, Arguments... arguments) const {
        return CallSlot<Result>(package_, slot, arguments...);
    }

    // Opens a stream with one reference. A result that has a destructor is stored where the second
    // argument points.
    const void* Open(std::uint64_t id) const {
        const void* stream = this;
        const void* const place =
            CallSlot<const void*>(package_, Set::kOpenDataStream, static_cast<void*>(&stream), id);
        EXPECT(place == &stream);
        return stream;
    }

    std::uint64_t Create(std::uint64_t size) const {
        return Call<std::uint64_t>(Set::kCreateDataStream, size);
    }

private:
    // Adds a reference, which outlives the pointer's.
    void Take(Util::RefPtr<IDataStreamSet>&& pointer) {
        EXPECT(pointer);
        static_assert(sizeof pointer == sizeof package_);
        package_ = pointer.Get();
        CallSlot<std::uint32_t>(package_, kAddRef);
    }

    std::string path_;
    const void* package_ = nullptr;
};

void Release(const void* object) {
    EXPECT(CallSlot<std::uint32_t>(object, kRelease) == 0);
}

}  // namespace

ABI_TEST(Slots, OneAndTwoCountReferences) {
    const BarePackage package("count");
    EXPECT(package.Call<std::uint32_t>(kAddRef) == 2);
    EXPECT(package.Call<std::uint32_t>(kAddRef) == 3);
    EXPECT(package.Call<std::uint32_t>(kRelease) == 2);
    EXPECT(package.Call<std::uint32_t>(kRelease) == 1);
    EXPECT(package.Call<std::uint32_t>(kRelease) == 0);
    EXPECT(OpenFilePackage(package.Config()));
}

ABI_TEST(Slots, ZeroDestroysAPackageAfterACommit) {
    const BarePackage package("destroyed");
    EXPECT(package.Create(5) == 0);
    EXPECT(OpenFilePackage(package.Config())->GetNumberOfDataStreams() == 0);
    package.Call<void*>(kDestructor, 1U);
    EXPECT(OpenFilePackage(package.Config())->GetNumberOfDataStreams() == 1);
}

ABI_TEST(Slots, ThreeDeletesAPackageAfterACommit) {
    const BarePackage package("deleted");
    EXPECT(package.Create(5) == 0);
    package.Call<void>(kDeleteThis);
    EXPECT(OpenFilePackage(package.Config())->GetNumberOfDataStreams() == 1);
}

ABI_TEST(SetSlots, FourLoadsWhatFiveHasCommitted) {
    const BarePackage package("commit");
    EXPECT(package.Create(7) == 0);
    EXPECT(package.Call<bool>(Set::kCommit));
    EXPECT(OpenFilePackage(package.Config())->GetTotalDataSize() == 7);
    {
        const Util::RefPtr<IDataStreamSet> other = OpenFilePackage(package.Config());
        EXPECT(other->CreateDataStream(20) == 1);
    }
    EXPECT(package.Call<std::uint64_t>(Set::kGetTotalDataSize) == 7);
    EXPECT(package.Call<bool>(Set::kLoad));
    EXPECT(package.Call<std::uint64_t>(Set::kGetTotalDataSize) == 27);
    Release(package.Get());
}

ABI_TEST(SetSlots, SevenAndEightSetAndGetTheHeaderDataSize) {
    const BarePackage package("header-size");
    EXPECT(package.Call<std::uint64_t>(Set::kGetHeaderDataSize) == 0);
    EXPECT(package.Call<bool>(Set::kSetHeaderDataSize, std::uint64_t{9000}));
    EXPECT(package.Call<std::uint64_t>(Set::kGetHeaderDataSize) == 9000);
    Release(package.Get());
}

// Only getting the data for writing counts as a change. A Load after a Commit shows the difference.
ABI_TEST(SetSlots, NineReadsTheHeaderDataAndTenChangesIt) {
    const BarePackage package("header-data");
    EXPECT(package.Call<const std::uint8_t*>(Set::kGetHeaderDataToRead) == nullptr);
    package.Call<bool>(Set::kSetHeaderDataSize, std::uint64_t{4});
    EXPECT(package.Call<bool>(Set::kCommit));

    *package.Call<std::uint8_t*>(Set::kGetHeaderDataToRead) = 1;
    EXPECT(package.Call<bool>(Set::kCommit));
    EXPECT(package.Call<bool>(Set::kLoad));
    EXPECT(*package.Call<const std::uint8_t*>(Set::kGetHeaderDataToRead) == 0);

    *package.Call<std::uint8_t*>(Set::kGetHeaderDataToWrite) = 2;
    EXPECT(package.Call<bool>(Set::kCommit));
    EXPECT(package.Call<bool>(Set::kLoad));
    EXPECT(*package.Call<const std::uint8_t*>(Set::kGetHeaderDataToRead) == 2);
    Release(package.Get());
}

ABI_TEST(SetSlots, ElevenAndTwelveCountAndNumberTheStreams) {
    const BarePackage package("numbers");
    for (std::uint64_t id = 0; id < 3; ++id) {
        EXPECT(package.Create(10) == id);
    }
    EXPECT(package.Call<bool>(Set::kDeleteDataStream, std::uint64_t{1}));
    EXPECT(package.Call<std::uint64_t>(Set::kGetNumberOfDataStreams) == 2);
    EXPECT(package.Call<std::uint64_t>(Set::kGetDataStreamId, std::uint64_t{1}) == 2);
    EXPECT(package.Call<std::uint64_t>(Set::kGetDataStreamId, std::uint64_t{2}) ==
           kInvalidStreamId);
    Release(package.Get());
}

ABI_TEST(SetSlots, ThirteenOpensWhatFourteenHasCreated) {
    const BarePackage package("open");
    const std::uint64_t id = package.Create(100);
    const void* const stream = package.Open(id);
    EXPECT(stream != nullptr);
    EXPECT(package.Open(id) == stream);
    EXPECT(CallSlot<std::uint32_t>(stream, kRelease) == 1);
    EXPECT(package.Open(id + 1) == nullptr);
    Release(stream);
    Release(package.Get());
}

ABI_TEST(SetSlots, FifteenDeletesAStreamThatIsNotOpen) {
    const BarePackage package("delete");
    const std::uint64_t id = package.Create(100);
    const void* const stream = package.Open(id);
    EXPECT(!package.Call<bool>(Set::kDeleteDataStream, id));
    Release(stream);
    EXPECT(package.Call<bool>(Set::kDeleteDataStream, id));
    EXPECT(package.Call<std::uint64_t>(Set::kGetNumberOfDataStreams) == 0);
    Release(package.Get());
}

ABI_TEST(StreamSlots, FourAndFiveReturnThePositionAndSize) {
    const BarePackage package("position");
    const void* const stream = package.Open(package.Create(20000));
    EXPECT(CallSlot<std::uint64_t>(stream, Stream::kGetPosition) == 0);
    EXPECT(CallSlot<std::uint64_t>(stream, Stream::kGetSize) == 20000);
    Release(stream);
    Release(package.Get());
}

ABI_TEST(StreamSlots, SixSeeksByOriginThenOffset) {
    const BarePackage package("seek");
    const void* const stream = package.Open(package.Create(20000));
    EXPECT(CallSlot<bool>(stream, Stream::kSeek, kSeekFromEnd, std::int32_t{-5000}));
    EXPECT(CallSlot<std::uint64_t>(stream, Stream::kGetPosition) == 15000);
    EXPECT(CallSlot<bool>(stream, Stream::kSeek, kSeekFromCurrent, std::int32_t{-1000}));
    EXPECT(CallSlot<std::uint64_t>(stream, Stream::kGetPosition) == 14000);
    EXPECT(!CallSlot<bool>(stream, Stream::kSeek, kSeekFromStart, std::int32_t{20001}));
    EXPECT(CallSlot<std::uint64_t>(stream, Stream::kGetPosition) == 14000);
    Release(stream);
    Release(package.Get());
}

ABI_TEST(StreamSlots, SevenReadsWhatEightHasWritten) {
    const BarePackage package("write");
    const std::uint64_t id = package.Create(20000);
    std::string text(20000, '\0');
    for (std::size_t index = 0; index < text.size(); ++index) {
        text[index] = static_cast<char>(index * 7 + index / 256);
    }
    const void* stream = package.Open(id);
    const std::uint64_t size = text.size() + 1;
    EXPECT(CallSlot<std::uint64_t>(stream, Stream::kWrite, static_cast<const void*>(text.data()),
                                   size) == 20000);
    Release(stream);
    Release(package.Get());

    const Util::RefPtr<IDataStreamSet> again = OpenFilePackage(package.Config());
    EXPECT(again);
    const Util::RefPtr<IDataStream> other = again->OpenDataStream(id);
    std::string back(20001, 'x');
    EXPECT(CallSlot<std::uint64_t>(other.Get(), Stream::kRead, static_cast<void*>(back.data()),
                                   size) == 20000);
    EXPECT(back == text + 'x');
}

}  // namespace Quorvel::Abi
