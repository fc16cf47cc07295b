#include "effectcache/StreamHelpers.h"

#include <exception>

namespace Quorvel {

namespace {

constexpr std::uint64_t kByteArrayLimit = 0x80000000;

// A short transfer. It never leaves this file.
class ShortTransfer : public std::exception {
public:
    explicit ShortTransfer(const char* text) : text_(text) {}
    const char* what() const noexcept override { return text_; }

private:
    const char* text_;
};

// Runs a step on a stream; any exception makes it fail and costs the caller the stream.
template <typename Step>
bool Guarded(Util::RefPtr<IDataStream>& stream, const Step& step) noexcept {
    try {
        return step();
    } catch (...) {
        stream.Reset();
        return false;
    }
}

template <typename Buffer, typename Resize>
bool ReadByteArray(Buffer& buffer, const Resize& resize, Util::RefPtr<IDataStream>& stream,
                   std::uint64_t limit) noexcept {
    if (!stream) {
        return false;
    }
    return Guarded(stream, [&] {
        std::uint64_t count = 0;
        if (!ReadExact(stream, &count, sizeof count) || count > limit || count >= kByteArrayLimit) {
            return false;
        }
        unsigned char* const bytes = resize(buffer, count);
        return count == 0 || ReadExact(stream, bytes, count);
    });
}

}  // namespace

bool WriteExact(Util::RefPtr<IDataStream>& stream, const void* data, std::uint64_t size) noexcept {
    if (!stream || !data || size == 0) {
        return false;
    }
    return Guarded(stream, [&] {
        if (stream->Write(data, size) != size) {
            throw ShortTransfer("Unable to write specified size!");
        }
        return true;
    });
}

bool ReadExact(Util::RefPtr<IDataStream>& stream, void* data, std::uint64_t size) noexcept {
    if (!stream || !data || size == 0) {
        return false;
    }
    return Guarded(stream, [&] {
        if (stream->Read(data, size) != size) {
            throw ShortTransfer("Unable to read specified size!");
        }
        return true;
    });
}

bool WriteBytes(std::span<const unsigned char> buffer, Util::RefPtr<IDataStream>& stream) noexcept {
    const std::uint64_t count = buffer.size();
    return WriteExact(stream, &count, sizeof count) &&
           (count == 0 || WriteExact(stream, buffer.data(), count));
}

bool ReadBytes(std::vector<unsigned char>& buffer, Util::RefPtr<IDataStream>& stream,
               std::uint64_t limit) noexcept {
    const auto resize = [](std::vector<unsigned char>& bytes, std::uint64_t count) {
        bytes.resize(count);
        return bytes.data();
    };
    return ReadByteArray(buffer, resize, stream, limit);
}

bool ReadBytes(Tab<unsigned char>& buffer, Util::RefPtr<IDataStream>& stream,
               std::uint64_t limit) noexcept {
    const auto resize = [](Tab<unsigned char>& bytes, std::uint64_t count) {
        bytes.SetCount(static_cast<int>(count));
        return bytes.Addr(0);
    };
    return ReadByteArray(buffer, resize, stream, limit);
}

std::uint64_t SerializedSize(std::span<const unsigned char> buffer) noexcept {
    return buffer.size() + sizeof(std::uint64_t);
}

}  // namespace Quorvel
