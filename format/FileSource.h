#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "format/Bytes.h"

namespace Quorvel::Format {

// The bytes of a file, read piece by piece as they are needed.
class FileSource {
public:
    virtual ~FileSource() = default;

    // The size in bytes when the source was opened.
    virtual std::uint64_t Size() const = 0;

    // Reads exactly size bytes. REQUIRES: they lie within Size. Throws std::runtime_error if they
    // can't be read.
    virtual void Read(std::uint64_t offset, std::uint8_t* to, std::uint64_t size) const = 0;
};

// A file in memory; the bytes must outlive it.
class MemorySource final : public FileSource {
public:
    explicit MemorySource(const Bytes& bytes) : bytes_(&bytes) {}
    std::uint64_t Size() const override { return bytes_->size(); }
    void Read(std::uint64_t offset, std::uint8_t* to, std::uint64_t size) const override;

private:
    const Bytes* bytes_;
};

// A file on disk. For one thread at a time. The constructor throws std::runtime_error if the file
// can't be opened or is not a regular file.
class DiskSource final : public FileSource {
public:
    explicit DiskSource(const std::string& path);
    std::uint64_t Size() const override { return size_; }
    void Read(std::uint64_t offset, std::uint8_t* to, std::uint64_t size) const override;

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    std::string path_;
    std::unique_ptr<std::FILE, Close> file_;
    std::uint64_t size_ = 0;
};

}  // namespace Quorvel::Format
