#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// A second implementation of the file formats that docs/format.md describes. It shares no code with
// the library, and therefore none of its mistakes.
namespace Quorvel::Format {

using Bytes = std::vector<std::uint8_t>;

// A file that a reader must refuse; what() says why.
class FormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A little-endian unsigned integer of width bytes (1 to 8). Load and store throw std::out_of_range
// if one of its bytes lies outside the buffer.
std::uint64_t LoadInteger(const Bytes& bytes, std::size_t offset, std::size_t width);
void StoreInteger(Bytes& bytes, std::size_t offset, std::size_t width, std::uint64_t value);
void AppendInteger(Bytes& bytes, std::size_t width, std::uint64_t value);

void Append(Bytes& bytes, const Bytes& more);
void Append(Bytes& bytes, std::string_view text);

// Takes integers and byte runs off the front of a buffer, which must outlive the reader.
class ByteReader {
public:
    // Begins at a position in the buffer. name describes the buffer's contents in error messages.
    ByteReader(const Bytes& bytes, std::string name, std::size_t position = 0)
        : bytes_(&bytes), name_(std::move(name)), position_(position) {}

    // Both throw FormatError if fewer bytes are left.
    std::uint64_t TakeInteger(std::size_t width);
    Bytes Take(std::uint64_t size);

    std::size_t Left() const { return bytes_->size() - position_; }

private:
    void Need(std::uint64_t size) const;

    const Bytes* bytes_;
    std::string name_;
    std::size_t position_;
};

// The whole content of a file. Throws std::runtime_error if it can't be read.
Bytes ReadWholeFile(const std::string& path);

// Replaces a file's content. Throws std::runtime_error if it can't be written.
void WriteWholeFile(const std::string& path, const Bytes& bytes);

}  // namespace Quorvel::Format
