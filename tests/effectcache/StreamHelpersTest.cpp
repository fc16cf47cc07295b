#include "effectcache/StreamHelpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

#include "effectcache/StoredCache.h"
#include "quorvel/Exceptions.h"
#include "support/HeapFault.h"

namespace Quorvel {

namespace {

using Testing::ByteArray;
using Testing::ByteList;
using Testing::Bytes;

// A stream in memory. It transfers at most `room` bytes in total. The call after the first
// `throwAfter` calls throws.
class MemoryStream : public IDataStream {
public:
    explicit MemoryStream(Bytes content = {}) : bytes(std::move(content)) {}

    std::uint64_t GetPosition() override { return position; }
    std::uint64_t GetSize() override { return bytes.size(); }
    bool Seek(std::uint32_t, std::int32_t) override { return false; }

    std::uint64_t Read(void* buffer, std::uint64_t size) override {
        CountCall();
        const std::uint64_t count = std::min({size, room, bytes.size() - position});
        std::memcpy(buffer, bytes.data() + position, count);
        position += count;
        room -= count;
        return count;
    }

    std::uint64_t Write(const void* buffer, std::uint64_t size) override {
        CountCall();
        const std::uint64_t count = std::min(size, room);
        const auto* const source = static_cast<const unsigned char*>(buffer);
        bytes.insert(bytes.end(), source, source + count);
        position += count;
        room -= count;
        return count;
    }

    Bytes bytes;
    std::uint64_t position = 0;
    std::uint64_t room = ~std::uint64_t{0};
    int calls = 0;
    int throwAfter = -1;
    bool throwsNonStandard = false;

private:
    void CountCall() {
        if (calls++ == throwAfter) {
            if (throwsNonStandard) { throw 17; }
            throw FileIOException(5);
        }
    }
};

// A stream with two references: one to pass to a helper, and one that keeps it for the test.
struct Subject {
    explicit Subject(Bytes bytes = {})
        : memory(new MemoryStream(std::move(bytes))), stream(memory) {}

    Util::RefPtr<MemoryStream> memory;
    Util::RefPtr<IDataStream> stream;
};

constexpr std::uint64_t kNoLimit = ~std::uint64_t{0};

// ---- WriteExact ---------------------------------------------------------------------------------

TEST(WriteExact, WritesAllBytesInOneCall) {
    Subject subject;
    EXPECT_TRUE(WriteExact(subject.stream, "abc", 3));
    EXPECT_EQ(subject.memory->bytes, (Bytes{'a', 'b', 'c'}));
    EXPECT_EQ(subject.memory->calls, 1);
    EXPECT_TRUE(subject.stream);
}

TEST(WriteExact, RefusesANullStream) {
    Util::RefPtr<IDataStream> stream;
    EXPECT_FALSE(WriteExact(stream, "abc", 3));
}

TEST(WriteExact, RefusesNullDataAndKeepsTheStream) {
    Subject subject;
    EXPECT_FALSE(WriteExact(subject.stream, nullptr, 3));
    EXPECT_EQ(subject.memory->calls, 0);
    EXPECT_TRUE(subject.stream);
}

TEST(WriteExact, RefusesNoBytesAndKeepsTheStream) {
    Subject subject;
    EXPECT_FALSE(WriteExact(subject.stream, "abc", 0));
    EXPECT_EQ(subject.memory->calls, 0);
    EXPECT_TRUE(subject.stream);
}

TEST(WriteExact, ShortWriteFailsAndReleasesTheStream) {
    Subject subject;
    subject.memory->room = 2;
    EXPECT_FALSE(WriteExact(subject.stream, "abc", 3));
    EXPECT_FALSE(subject.stream);
}

TEST(WriteExact, WriteThatThrowsFailsAndReleasesTheStream) {
    Subject subject;
    subject.memory->throwAfter = 0;
    EXPECT_FALSE(WriteExact(subject.stream, "abc", 3));
    EXPECT_FALSE(subject.stream);
}

TEST(WriteExact, WriteThatThrowsSomethingElseFailsAndReleasesTheStream) {
    Subject subject;
    subject.memory->throwAfter = 0;
    subject.memory->throwsNonStandard = true;
    EXPECT_FALSE(WriteExact(subject.stream, "abc", 3));
    EXPECT_FALSE(subject.stream);
}

// ---- ReadExact ----------------------------------------------------------------------------------

TEST(ReadExact, ReadsAllBytesInOneCall) {
    Subject subject({1, 2, 3, 4});
    Bytes bytes(3);
    EXPECT_TRUE(ReadExact(subject.stream, bytes.data(), 3));
    EXPECT_EQ(bytes, (Bytes{1, 2, 3}));
    EXPECT_EQ(subject.memory->calls, 1);
    EXPECT_TRUE(subject.stream);
}

TEST(ReadExact, RefusesANullStream) {
    Util::RefPtr<IDataStream> stream;
    Bytes bytes(3);
    EXPECT_FALSE(ReadExact(stream, bytes.data(), 3));
}

TEST(ReadExact, RefusesNullDataAndKeepsTheStream) {
    Subject subject({1, 2, 3, 4});
    EXPECT_FALSE(ReadExact(subject.stream, nullptr, 3));
    EXPECT_EQ(subject.memory->calls, 0);
    EXPECT_TRUE(subject.stream);
}

TEST(ReadExact, RefusesNoBytesAndKeepsTheStream) {
    Subject subject({1, 2, 3, 4});
    Bytes bytes(3);
    EXPECT_FALSE(ReadExact(subject.stream, bytes.data(), 0));
    EXPECT_EQ(subject.memory->calls, 0);
    EXPECT_TRUE(subject.stream);
}

TEST(ReadExact, ShortReadFailsAndReleasesTheStream) {
    Subject subject({1, 2});
    Bytes bytes(3);
    EXPECT_FALSE(ReadExact(subject.stream, bytes.data(), 3));
    EXPECT_FALSE(subject.stream);
}

TEST(ReadExact, ReadThatThrowsFailsAndReleasesTheStream) {
    Subject subject({1, 2, 3});
    subject.memory->throwAfter = 0;
    Bytes bytes(3);
    EXPECT_FALSE(ReadExact(subject.stream, bytes.data(), 3));
    EXPECT_FALSE(subject.stream);
}

// ---- WriteBytes ---------------------------------------------------------------------------------

TEST(WriteBytes, WritesTheLengthAndTheBytes) {
    Subject subject;
    EXPECT_TRUE(WriteBytes(Bytes{0xAA, 0xBB, 0xCC}, subject.stream));
    EXPECT_EQ(subject.memory->bytes, (Bytes{3, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB, 0xCC}));
    EXPECT_TRUE(subject.stream);
}

TEST(WriteBytes, WritesOnlyTheLengthOfNoBytes) {
    Subject subject;
    EXPECT_TRUE(WriteBytes({}, subject.stream));
    EXPECT_EQ(subject.memory->bytes, (Bytes{0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(subject.memory->calls, 1);
    EXPECT_TRUE(subject.stream);
}

TEST(WriteBytes, RefusesANullStream) {
    Util::RefPtr<IDataStream> stream;
    EXPECT_FALSE(WriteBytes(Bytes{1}, stream));
    EXPECT_FALSE(WriteBytes({}, stream));
}

TEST(WriteBytes, ShortLengthFailsAndReleasesTheStream) {
    Subject subject;
    subject.memory->room = 7;
    EXPECT_FALSE(WriteBytes(Bytes{1, 2}, subject.stream));
    EXPECT_FALSE(subject.stream);
    EXPECT_EQ(subject.memory->calls, 1);
}

TEST(WriteBytes, ShortBytesFailAndReleaseTheStream) {
    Subject subject;
    subject.memory->room = 9;
    EXPECT_FALSE(WriteBytes(Bytes{1, 2}, subject.stream));
    EXPECT_FALSE(subject.stream);
    EXPECT_EQ(subject.memory->calls, 2);
}

// ---- ReadBytes ----------------------------------------------------------------------------------

class ReadBytesTest : public ::testing::Test {
public:
    Bytes Got() { return Bytes(buffer.Addr(0), buffer.Addr(0) + buffer.Count()); }

    Tab<unsigned char> buffer;
};

TEST_F(ReadBytesTest, ReadsAsManyBytesAsTheLengthSays) {
    Subject subject(ByteList().Append(ByteArray("abc")).Text("more"));
    EXPECT_TRUE(ReadBytes(buffer, subject.stream, 100));
    EXPECT_EQ(Got(), (Bytes{'a', 'b', 'c'}));
    EXPECT_EQ(subject.memory->position, 11u);
    EXPECT_TRUE(subject.stream);
}

TEST_F(ReadBytesTest, MakesTheBufferEmptyForNoBytes) {
    Subject subject(ByteArray("old"));
    ASSERT_TRUE(ReadBytes(buffer, subject.stream, 100));
    Subject empty(ByteArray(""));
    EXPECT_TRUE(ReadBytes(buffer, empty.stream, 100));
    EXPECT_EQ(Got(), Bytes());
    EXPECT_EQ(empty.memory->calls, 1);
    EXPECT_TRUE(empty.stream);
}

TEST_F(ReadBytesTest, ReadsAsManyBytesAsTheLimit) {
    Subject subject(ByteArray("abcd"));
    EXPECT_TRUE(ReadBytes(buffer, subject.stream, 4));
    EXPECT_EQ(Got(), (Bytes{'a', 'b', 'c', 'd'}));
}

TEST_F(ReadBytesTest, RefusesOneByteMoreThanTheLimitAndKeepsTheStream) {
    Subject subject(ByteArray("abcde"));
    EXPECT_FALSE(ReadBytes(buffer, subject.stream, 4));
    EXPECT_TRUE(subject.stream);
    EXPECT_EQ(subject.memory->calls, 1);
}

TEST_F(ReadBytesTest, RefusesTwoGigabytesWithAnyLimit) {
    Subject subject(ByteList().U64(0x80000000));
    EXPECT_FALSE(ReadBytes(buffer, subject.stream, kNoLimit));
    EXPECT_TRUE(subject.stream);
    EXPECT_EQ(subject.memory->calls, 1);

    Subject largest(ByteList().U64(kNoLimit));
    EXPECT_FALSE(ReadBytes(buffer, largest.stream, kNoLimit));
    EXPECT_TRUE(largest.stream);
}

TEST_F(ReadBytesTest, RefusesANullStream) {
    Util::RefPtr<IDataStream> stream;
    EXPECT_FALSE(ReadBytes(buffer, stream, 100));
}

TEST_F(ReadBytesTest, ShortLengthFailsAndReleasesTheStream) {
    Subject subject({1, 0, 0, 0, 0, 0, 0});
    EXPECT_FALSE(ReadBytes(buffer, subject.stream, 100));
    EXPECT_FALSE(subject.stream);
}

TEST_F(ReadBytesTest, ShortBytesFailAndReleaseTheStream) {
    Subject subject(ByteList().U64(3).Text("ab"));
    EXPECT_FALSE(ReadBytes(buffer, subject.stream, 100));
    EXPECT_FALSE(subject.stream);
}

TEST_F(ReadBytesTest, ReadThatThrowsFailsAndReleasesTheStream) {
    Subject subject(ByteArray("abc"));
    subject.memory->throwAfter = 1;
    EXPECT_FALSE(ReadBytes(buffer, subject.stream, 100));
    EXPECT_FALSE(subject.stream);
}

// Claims to have filled every buffer, so that the largest one takes no time.
class EndlessStream : public MemoryStream {
public:
    explicit EndlessStream(Bytes length) : MemoryStream(std::move(length)) {}

    std::uint64_t Read(void* buffer, std::uint64_t size) override {
        return position < bytes.size() ? MemoryStream::Read(buffer, size) : size;
    }
};

TEST_F(ReadBytesTest, ReadsOneByteLessThanTwoGigabytes) {
    Util::RefPtr<IDataStream> stream(new EndlessStream(ByteList().U64(0x7FFFFFFF)));
    EXPECT_TRUE(ReadBytes(buffer, stream, kNoLimit));
    EXPECT_EQ(buffer.Count(), 0x7FFFFFFF);
    EXPECT_TRUE(stream);
}

TEST_F(ReadBytesTest, LackOfMemoryFailsAndReleasesTheStream) {
    Subject subject(ByteArray("abc"));
    bool read = true;
    {
        const Testing::HeapFault fault;
        read = ReadBytes(buffer, subject.stream, 100);
        EXPECT_EQ(fault.Failures(), 1u);
    }
    EXPECT_FALSE(read);
    EXPECT_FALSE(subject.stream);
}

TEST(SerializedSize, CountsTheLengthPrefix) {
    EXPECT_EQ(SerializedSize(0), 8u);
    EXPECT_EQ(SerializedSize(1048576), 1048584u);
}

}  // namespace

}  // namespace Quorvel
