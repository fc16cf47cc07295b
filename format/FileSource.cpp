#include "format/FileSource.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "format/Path.h"

namespace Quorvel::Format {
namespace {

[[noreturn]] void Fail(const std::string& path, const char* why) {
    throw std::runtime_error("can't read " + path + ": " + why);
}

}  // namespace

void MemorySource::Read(std::uint64_t offset, std::uint8_t* to, std::uint64_t size) const {
    const auto from = bytes_->begin() + static_cast<std::ptrdiff_t>(offset);
    std::copy(from, from + static_cast<std::ptrdiff_t>(size), to);
}

DiskSource::DiskSource(const std::string& path) : path_(path) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(ToPath(path), error);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        Fail(path, "it is not a file");
    }
    file_.reset(std::fopen(path.c_str(), "rb"));
    if (!file_) { Fail(path, std::strerror(errno)); }
    // Each range is read at once, so a buffer would only add a copy.
    std::setvbuf(file_.get(), nullptr, _IONBF, 0);
    size_ = std::filesystem::file_size(ToPath(path), error);
    if (error) { Fail(path, error.message().c_str()); }
}

void DiskSource::Read(std::uint64_t offset, std::uint8_t* to, std::uint64_t size) const {
    errno = 0;
    if (std::fseek(file_.get(), static_cast<long>(offset), SEEK_SET) != 0 ||
        std::fread(to, 1, static_cast<std::size_t>(size), file_.get()) != size) {
        Fail(path_, errno != 0 ? std::strerror(errno) : "it has become shorter");
    }
}

}  // namespace Quorvel::Format
