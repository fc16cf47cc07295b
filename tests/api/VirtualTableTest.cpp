// The order of operations in the virtual tables of the interfaces. Existing hosts call them by
// number.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel/Quorvel.h>

#include <array>
#include <cstring>

#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

using ::testing::ElementsAre;

// In this C++ ABI a destructor takes two places in the table. A pointer to a virtual function holds
// the function's place in bytes, plus one, and then an offset to add to the object's address.
constexpr std::uintptr_t kDestructors = 2;

template <typename Operation>
std::uintptr_t PlaceOf(Operation operation) {
    std::array<std::uintptr_t, 2> words;
    static_assert(sizeof words == sizeof operation);
    std::memcpy(words.data(), &operation, sizeof words);
    return (words[0] - 1) / sizeof(void*);
}

template <typename Operation>
Operation OperationAt(std::uintptr_t place) {
    const std::array<std::uintptr_t, 2> words = {place * sizeof(void*) + 1, 0};
    Operation operation;
    static_assert(sizeof words == sizeof operation);
    std::memcpy(&operation, words.data(), sizeof operation);
    return operation;
}

// After the destructors come AddRef, Release and DeleteThis.
constexpr std::uintptr_t kFirst = kDestructors + 3;

}  // namespace

TEST(VirtualTable, OfReferenceCountedObjectsBeginsWithReferenceCounting) {
    struct Object : Util::ARefObject {
        using ARefObject::DeleteThis;
    };
    EXPECT_THAT((std::array{PlaceOf(&Object::AddRef), PlaceOf(&Object::Release),
                            PlaceOf(&Object::DeleteThis)}),
                ElementsAre(kDestructors, kDestructors + 1, kDestructors + 2));
}

TEST(VirtualTable, OfADataStreamSetHoldsTwelveOperations) {
    using Set = IDataStreamSet;
    const auto readHeaderData =
        static_cast<const std::uint8_t* (Set::*)() const>(&Set::GetHeaderData);
    const auto writeHeaderData = static_cast<std::uint8_t* (Set::*)()>(&Set::GetHeaderData);
    EXPECT_THAT(
        (std::array{PlaceOf(&Set::Load), PlaceOf(&Set::Commit), PlaceOf(&Set::GetTotalDataSize),
                    PlaceOf(&Set::SetHeaderDataSize), PlaceOf(&Set::GetHeaderDataSize),
                    PlaceOf(readHeaderData), PlaceOf(writeHeaderData),
                    PlaceOf(&Set::GetNumberOfDataStreams), PlaceOf(&Set::GetDataStreamId),
                    PlaceOf(&Set::OpenDataStream), PlaceOf(&Set::CreateDataStream),
                    PlaceOf(&Set::DeleteDataStream)}),
        ElementsAre(kFirst, kFirst + 1, kFirst + 2, kFirst + 3, kFirst + 4, kFirst + 5, kFirst + 6,
                    kFirst + 7, kFirst + 8, kFirst + 9, kFirst + 10, kFirst + 11));
}

TEST(VirtualTable, OfADataStreamHoldsFiveOperations) {
    using Stream = IDataStream;
    EXPECT_THAT(
        (std::array{PlaceOf(&Stream::GetPosition), PlaceOf(&Stream::GetSize),
                    PlaceOf(&Stream::Seek), PlaceOf(&Stream::Read), PlaceOf(&Stream::Write)}),
        ElementsAre(kFirst, kFirst + 1, kFirst + 2, kFirst + 3, kFirst + 4));
}

TEST(VirtualTable, LeadsToTheLibrarysOperations) {
    const TemporaryDirectory directory;
    const std::string path = directory.File("package");
    const auto package = CreateFilePackage({path.c_str(), 16, 100});
    ASSERT_TRUE(package);

    const auto create = OperationAt<std::uint64_t (IDataStreamSet::*)(std::uint64_t)>(kFirst + 10);
    EXPECT_EQ(((*package).*create)(5), 0U);
    const auto total = OperationAt<std::uint64_t (IDataStreamSet::*)()>(kFirst + 2);
    EXPECT_EQ(((*package).*total)(), 5U);
    const auto open =
        OperationAt<Util::RefPtr<IDataStream> (IDataStreamSet::*)(std::uint64_t)>(kFirst + 9);
    const Util::RefPtr<IDataStream> stream = ((*package).*open)(0);
    ASSERT_TRUE(stream);

    const auto write =
        OperationAt<std::uint64_t (IDataStream::*)(const void*, std::uint64_t)>(kFirst + 4);
    EXPECT_EQ(((*stream).*write)("slots", 5), 5U);
    const auto seek = OperationAt<bool (IDataStream::*)(std::uint32_t, std::int32_t)>(kFirst + 2);
    EXPECT_TRUE(((*stream).*seek)(kSeekFromEnd, -2));
    const auto position = OperationAt<std::uint64_t (IDataStream::*)()>(kFirst);
    EXPECT_EQ(((*stream).*position)(), 3U);
    char letter = 0;
    const auto read = OperationAt<std::uint64_t (IDataStream::*)(void*, std::uint64_t)>(kFirst + 3);
    EXPECT_EQ(((*stream).*read)(&letter, 1), 1U);
    EXPECT_EQ(letter, 't');
}

}  // namespace Quorvel::Testing
