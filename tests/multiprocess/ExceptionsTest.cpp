#include "quorvel/Exceptions.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <type_traits>

namespace Quorvel::Testing {

namespace {

// True if the class derives publicly from std::exception, can be copied, and adds no fields.
template <typename Exception>
constexpr bool IsBareException =
    std::is_convertible_v<Exception*, std::exception*>&& std::is_copy_constructible_v<Exception> &&
    sizeof(Exception) == sizeof(std::exception);

// The text that a handler of std::exception gets.
template <typename Exception>
std::string CaughtText(const Exception& exception) {
    try {
        throw exception;
    } catch (const std::exception& caught) { return caught.what(); }
}

template <typename Exception>
class ErrorClass : public ::testing::Test {};

struct CodedFileIOException : FileIOException {
    CodedFileIOException() : FileIOException(13) {}
};
struct CodedWin32APICallFailedException : Win32APICallFailedException {
    CodedWin32APICallFailedException() : Win32APICallFailedException(13) {}
};
using ErrorClasses =
    ::testing::Types<FileIOException, FileDataCorruptException, InvalidParameterException,
                     OutOfMemoryException, CodedFileIOException, CodedWin32APICallFailedException>;
TYPED_TEST_SUITE(ErrorClass, ErrorClasses);

}  // namespace

TYPED_TEST(ErrorClass, HasTheStandardLibrarysDefaultText) {
    const std::exception standard;
    EXPECT_STREQ(TypeParam().what(), standard.what());
    EXPECT_EQ(CaughtText(TypeParam()), standard.what());
}

TYPED_TEST(ErrorClass, IsNotOneOfTheOthers) {
    int caughtAs = 0;
    const TypeParam exception;
    const auto countIf = [&]<typename Other>() {
        caughtAs +=
            dynamic_cast<const Other*>(static_cast<const std::exception*>(&exception)) ? 1 : 0;
    };
    countIf.template operator()<FileIOException>();
    countIf.template operator()<FileDataCorruptException>();
    countIf.template operator()<InvalidParameterException>();
    countIf.template operator()<OutOfMemoryException>();
    countIf.template operator()<Win32APICallFailedException>();
    EXPECT_EQ(caughtAs, 1);
}

TEST(Exceptions, WithoutACodeHoldNothing) {
    EXPECT_TRUE(IsBareException<FileDataCorruptException>);
    EXPECT_TRUE(IsBareException<InvalidParameterException>);
    EXPECT_TRUE(IsBareException<OutOfMemoryException>);
}

TEST(Exceptions, WithACodeHoldNothingElse) {
    struct Coded : std::exception {
        std::uint32_t code;
    };
    EXPECT_TRUE((std::is_convertible_v<FileIOException*, std::exception*>));
    EXPECT_TRUE((std::is_convertible_v<Win32APICallFailedException*, std::exception*>));
    EXPECT_EQ(sizeof(FileIOException), sizeof(Coded));
    EXPECT_EQ(sizeof(Win32APICallFailedException), sizeof(Coded));
}

TEST(FileIOException, HasCodeZeroByDefault) {
    EXPECT_EQ(FileIOException().errorCode, 0U);
}

TEST(FileIOException, CarriesItsCodeAndCopiesIt) {
    const FileIOException original(0xFEDCBA98);
    const FileIOException copy(original);
    EXPECT_EQ(original.errorCode, 0xFEDCBA98U);
    EXPECT_EQ(copy.errorCode, 0xFEDCBA98U);
    try {
        throw copy;
    } catch (const FileIOException& caught) { EXPECT_EQ(caught.errorCode, 0xFEDCBA98U); }
}

TEST(Win32APICallFailedException, CarriesItsCodeAndCopiesIt) {
    const Win32APICallFailedException original(0xFEDCBA98);
    const Win32APICallFailedException copy(original);
    EXPECT_EQ(original.errorCode, 0xFEDCBA98U);
    EXPECT_EQ(copy.errorCode, 0xFEDCBA98U);
    try {
        throw copy;
    } catch (const Win32APICallFailedException& caught) {
        EXPECT_EQ(caught.errorCode, 0xFEDCBA98U);
    }
}

TEST(Win32APICallFailedException, RequiresACode) {
    EXPECT_FALSE(std::is_default_constructible_v<Win32APICallFailedException>);
    EXPECT_FALSE((std::is_convertible_v<std::uint32_t, Win32APICallFailedException>));
    EXPECT_FALSE((std::is_convertible_v<std::uint32_t, FileIOException>));
}

}  // namespace Quorvel::Testing
