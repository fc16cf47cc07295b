#include "format/Bytes.h"

#include <fstream>

namespace Quorvel::Format {

std::uint64_t LoadInteger(const Bytes& bytes, std::size_t offset, std::size_t width) {
    const std::uint8_t* const from = &bytes.at(offset);
    bytes.at(offset + width - 1);
    std::uint64_t value = 0;
    for (std::size_t i = width; i > 0; --i) {
        value = value << 8 | from[i - 1];
    }
    return value;
}

void StoreInteger(Bytes& bytes, std::size_t offset, std::size_t width, std::uint64_t value) {
    for (std::size_t i = 0; i < width; ++i) {
        bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

void AppendInteger(Bytes& bytes, std::size_t width, std::uint64_t value) {
    bytes.resize(bytes.size() + width);
    StoreInteger(bytes, bytes.size() - width, width, value);
}

void Append(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void Append(Bytes& bytes, std::string_view text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
}

std::uint64_t ByteReader::TakeInteger(std::size_t width) {
    Need(width);
    const std::uint64_t value = LoadInteger(*bytes_, position_, width);
    position_ += width;
    return value;
}

Bytes ByteReader::Take(std::uint64_t size) {
    Need(size);
    const auto first = bytes_->begin() + static_cast<std::ptrdiff_t>(position_);
    position_ += static_cast<std::size_t>(size);
    return Bytes(first, bytes_->begin() + static_cast<std::ptrdiff_t>(position_));
}

void ByteReader::Need(std::uint64_t size) const {
    if (size > Left()) { throw FormatError(name_ + " ends early"); }
}

Bytes ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    Bytes bytes;
    Bytes chunk(1 << 16);
    do {
        file.read(reinterpret_cast<char*>(chunk.data()),
                  static_cast<std::streamsize>(chunk.size()));
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + file.gcount());
    } while (file);
    if (!file.eof()) { throw std::runtime_error("can't read " + path); }
    return bytes;
}

void WriteWholeFile(const std::string& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) { throw std::runtime_error("can't write " + path); }
}

}  // namespace Quorvel::Format
