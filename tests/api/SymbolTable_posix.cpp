#include <cxxabi.h>
#include <elf.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "api/SymbolTable.h"
#include "format/Bytes.h"

namespace Quorvel::Testing {

namespace {

template <typename Record>
Record RecordAt(const Format::Bytes& file, std::uint64_t offset) {
    Record record;
    std::memcpy(&record, file.data() + offset, sizeof record);
    return record;
}

std::string Demangled(const char* name) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(
        abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
    return text ? text.get() : name;
}

bool IsExported(const Elf64_Sym& symbol) {
    return symbol.st_shndx != SHN_UNDEF && ELF64_ST_BIND(symbol.st_info) != STB_LOCAL;
}

}  // namespace

std::set<std::string> ExportedNames(const std::string& path) {
    const Format::Bytes file = Format::ReadWholeFile(path);
    const auto header = RecordAt<Elf64_Ehdr>(file, 0);
    const auto section = [&](std::uint64_t index) {
        return RecordAt<Elf64_Shdr>(file, header.e_shoff + index * sizeof(Elf64_Shdr));
    };
    std::set<std::string> names;
    for (std::uint64_t index = 0; index < header.e_shnum; ++index) {
        const Elf64_Shdr table = section(index);
        if (table.sh_type != SHT_DYNSYM) { continue; }
        const auto* const strings =
            reinterpret_cast<const char*>(file.data()) + section(table.sh_link).sh_offset;
        for (std::uint64_t at = 0; at < table.sh_size; at += sizeof(Elf64_Sym)) {
            const auto symbol = RecordAt<Elf64_Sym>(file, table.sh_offset + at);
            if (IsExported(symbol)) { names.insert(Demangled(strings + symbol.st_name)); }
        }
    }
    return names;
}

}  // namespace Quorvel::Testing
