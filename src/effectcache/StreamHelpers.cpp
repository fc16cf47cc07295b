#include "effectcache/StreamHelpers.h"

#include <exception>

namespace Quorvel {

namespace {

constexpr std::uint64_t kByteArrayLimit = 0x80000000;

// Thrown for a short transfer; never leaves this file.
class ShortTransfer : public std::exception {
public:
    explicit ShortTransfer(const char* text) : text_(text) {}
    // not reached in tests: no caller asks for the text
    const char* what() const noexcept override { return text_; }

private:
    const char* text_;
};

// Runs a step on a stream. Any exception makes the step fail and clears the caller's reference.
template <typename Step>
bool Guarded(Util::RefPtr<IDataStream>& stream, const Step& step) noexcept {
    try {
        return step();
    } catch (...) {
        stream.Reset();
        return false;
    }
}

}  // namespace

bool WriteExact(Util::RefPtr<IDataStream>& stream, const void* data, std::uint64_t size) noexcept {
    if (!stream || !data || size == 0) { return false; }
    return Guarded(stream, [&] {
        if (stream->Write(data, size) != size) {
            throw ShortTransfer("Unable to write specified size!");
        }
        return true;
    });
}

bool ReadExact(Util::RefPtr<IDataStream>& stream, void* data, std::uint64_t size) noexcept {
    if (!stream || !data || size == 0) { return false; }
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

bool ReadBytes(Tab<unsigned char>& buffer, Util::RefPtr<IDataStream>& stream,
               std::uint64_t limit) noexcept {
    if (!stream) { return false; }
    return Guarded(stream, [&] {
        std::uint64_t count = 0;
        if (!ReadExact(stream, &count, sizeof count) || count > limit || count >= kByteArrayLimit) {
            return false;
        }
        buffer.SetCount(static_cast<int>(count));
        return count == 0 || ReadExact(stream, buffer.Addr(0), count);
    });
}

}  // namespace Quorvel
