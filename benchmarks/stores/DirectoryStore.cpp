#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "stores/Store.h"

namespace Quorvel::Benchmarks {

namespace {

constexpr std::size_t kLongestFileName = 255;
constexpr std::size_t kFirstRead = 0x10000;

[[noreturn]] void Refuse(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

class File {
public:
    File(const std::string& path, int flags)
        : descriptor_(::open(path.c_str(), flags | O_CLOEXEC, 0644)) {}
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() {
        if (descriptor_ >= 0) { ::close(descriptor_); }
    }
    int Get() const { return descriptor_; }

private:
    int descriptor_;
};

// Keeps each effect in a file: the number of bytes, then the bytes, written in one call. A file
// with fewer bytes is still being written and does not count as an effect.
class DirectoryStore : public Store {
public:
    explicit DirectoryStore(const std::string& directory) : directory_(directory + '/') {
        found_.resize(kFirstRead);
    }

    void Save(const Effect& effect) override {
        const std::string& path = PathOf(effect.name);
        const File file(path, O_WRONLY | O_CREAT | O_TRUNC);
        std::uint64_t size = effect.bytes.size();
        const iovec parts[] = {{&size, sizeof size},
                               {const_cast<unsigned char*>(effect.bytes.data()), size}};
        if (file.Get() < 0 ||
            ::writev(file.Get(), parts, 2) != static_cast<ssize_t>(sizeof size + size)) {
            Refuse(path);
        }
    }

    void Flush() override {}

    std::optional<std::span<const unsigned char>> Find(const CStr& name) override {
        const std::string& path = PathOf(name);
        const File file(path, O_RDONLY);
        if (file.Get() < 0) {
            if (errno == ENOENT) { return std::nullopt; }
            Refuse(path);
        }
        std::uint64_t size = 0;
        std::size_t filled = Read(file, 0);
        if (filled < sizeof size) { return std::nullopt; }
        std::memcpy(&size, found_.data(), sizeof size);
        if (sizeof size + size > found_.size()) {
            found_.resize(sizeof size + size);
            filled += Read(file, filled);
        }
        if (filled < sizeof size + size) { return std::nullopt; }
        return std::span<const unsigned char>(found_.data() + sizeof size, size);
    }

private:
    std::size_t Read(const File& file, std::size_t start) {
        const ssize_t moved = ::read(file.Get(), found_.data() + start, found_.size() - start);
        return moved > 0 ? static_cast<std::size_t>(moved) : 0;
    }

    // A name as a file name: slashes and percent signs become %2F and %25. A name that is too long
    // for a file is cut and ends in a hash of the whole name.
    const std::string& PathOf(const CStr& name) {
        path_ = directory_;
        std::uint64_t hash = 0xCBF29CE484222325;
        for (std::size_t index = 0; index < name.Length(); ++index) {
            const char byte = name[index];
            hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
            if (byte == '/' || byte == '%') {
                path_ += byte == '/' ? "%2F" : "%25";
            } else {
                path_ += byte;
            }
        }
        if (path_.size() - directory_.size() > kLongestFileName) {
            char text[20];
            std::snprintf(text, sizeof text, "%%%016llx", static_cast<unsigned long long>(hash));
            path_.resize(directory_.size() + kLongestFileName - std::strlen(text));
            path_ += text;
        }
        return path_;
    }

    std::string directory_;
    std::string path_;
    std::vector<unsigned char> found_;
};

}  // namespace

std::unique_ptr<Store> OpenDirectoryStore(const std::string& directory) {
    return std::make_unique<DirectoryStore>(directory);
}

}  // namespace Quorvel::Benchmarks
