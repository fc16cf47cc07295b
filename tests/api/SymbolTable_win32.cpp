#include <windows.h>

#include <cstring>
#include <stdexcept>

#include "api/SymbolTable.h"
#include "format/Bytes.h"

namespace Quorvel::Testing {

namespace {

// An image in its file, looked up by the addresses that its sections have in memory.
class Image {
public:
    explicit Image(const std::string& path) : file_(Format::ReadWholeFile(path)) {
        const auto start = RecordAt<IMAGE_DOS_HEADER>(0);
        headers_ = static_cast<std::uint64_t>(start.e_lfanew);
    }

    IMAGE_NT_HEADERS64 Headers() const { return RecordAt<IMAGE_NT_HEADERS64>(headers_); }

    template <typename Record>
    Record RecordOf(std::uint64_t address) const {
        return RecordAt<Record>(OffsetOf(address));
    }

    std::string TextOf(std::uint64_t address) const {
        return reinterpret_cast<const char*>(file_.data()) + OffsetOf(address);
    }

private:
    template <typename Record>
    Record RecordAt(std::uint64_t offset) const {
        Record record;
        std::memcpy(&record, file_.data() + offset, sizeof record);
        return record;
    }

    std::uint64_t OffsetOf(std::uint64_t address) const {
        const IMAGE_FILE_HEADER header = Headers().FileHeader;
        const std::uint64_t sections =
            headers_ + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) + header.SizeOfOptionalHeader;
        for (std::uint64_t index = 0; index < header.NumberOfSections; ++index) {
            const auto section =
                RecordAt<IMAGE_SECTION_HEADER>(sections + index * sizeof(IMAGE_SECTION_HEADER));
            if (address >= section.VirtualAddress &&
                address - section.VirtualAddress < section.SizeOfRawData) {
                return address - section.VirtualAddress + section.PointerToRawData;
            }
        }
        throw std::runtime_error("an address lies outside all sections");
    }

    Format::Bytes file_;
    std::uint64_t headers_ = 0;
};

}  // namespace

std::set<std::string> ExportedNames(const std::string& path) {
    const Image image(path);
    const auto directory = image.RecordOf<IMAGE_EXPORT_DIRECTORY>(
        image.Headers().OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
    std::set<std::string> names;
    for (std::uint64_t index = 0; index < directory.NumberOfNames; ++index) {
        names.insert(
            image.TextOf(image.RecordOf<DWORD>(directory.AddressOfNames + index * sizeof(DWORD))));
    }
    return names;
}

}  // namespace Quorvel::Testing
