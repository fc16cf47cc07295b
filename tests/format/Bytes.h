#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// A second, separate implementation of the file formats that docs/format.md draws. It shares no
// code with the library, so that what one of the two gets wrong the other does not.
namespace Quorvel::Format {

using Bytes = std::vector<std::uint8_t>;

// A file that a reader must refuse. The text says why.
class FormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The little-endian unsigned integer of width bytes (1 to 8) at offset; the bytes must be there.
std::uint64_t LoadInteger(const Bytes& bytes, std::size_t offset, std::size_t width);
void StoreInteger(Bytes& bytes, std::size_t offset, std::size_t width, std::uint64_t value);
void AppendInteger(Bytes& bytes, std::size_t width, std::uint64_t value);

void Append(Bytes& bytes, const Bytes& more);
void Append(Bytes& bytes, std::string_view text);

// Takes integers and byte runs off the front of a buffer, which must outlive it.
class ByteReader {
public:
    // The name of what is read stands in the error's text.
    ByteReader(const Bytes& bytes, std::string name) : bytes_(&bytes), name_(std::move(name)) {}

    // Both throw FormatError when fewer bytes are left.
    std::uint64_t TakeInteger(std::size_t width);
    Bytes Take(std::uint64_t size);

    std::size_t Left() const { return bytes_->size() - position_; }

private:
    void Need(std::uint64_t size) const;

    const Bytes* bytes_;
    std::string name_;
    std::size_t position_ = 0;
};

// The whole content of a file. Throws std::runtime_error when it can't be read.
Bytes ReadWholeFile(const std::string& path);

// Makes the file hold just these bytes. Throws std::runtime_error when it can't be written.
void WriteWholeFile(const std::string& path, const Bytes& bytes);

}  // namespace Quorvel::Format
