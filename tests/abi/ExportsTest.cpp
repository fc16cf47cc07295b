// Compares the decorated names that the library exports with exports.txt. A change of the exported
// interface must update the list.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>
#include <string>

#include "Check.h"

namespace Quorvel::Abi {

namespace {

using Names = std::set<std::string>;

Names ListedNames() {
    Names names;
    std::FILE* const list = std::fopen(QUORVEL_EXPORT_LIST, "r");
    EXPECT(list);
    char line[1000];
    while (std::fgets(line, sizeof line, list)) {
        std::string name = line;
        name.erase(name.find_last_not_of("\r\n") + 1);
        names.insert(name);
    }
    std::fclose(list);
    return names;
}

// The names in the loaded image's export directory.
Names ExportedNames() {
    const auto* const image = reinterpret_cast<const char*>(::GetModuleHandleA("quorvel.dll"));
    EXPECT(image);
    const auto* const start = reinterpret_cast<const IMAGE_DOS_HEADER*>(image);
    const auto* const headers =
        reinterpret_cast<const IMAGE_NT_HEADERS64*>(image + start->e_lfanew);
    const auto* const directory = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(
        image + headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
    const auto* const addresses = reinterpret_cast<const DWORD*>(image + directory->AddressOfNames);
    Names names;
    for (DWORD index = 0; index < directory->NumberOfNames; ++index) {
        names.insert(image + addresses[index]);
    }
    EXPECT(directory->NumberOfFunctions == names.size());
    return names;
}

// True if the second set contains the first; prints the names that it lacks.
bool IsWithin(const Names& names, const Names& others) {
    Names rest;
    std::set_difference(names.begin(), names.end(), others.begin(), others.end(),
                        std::inserter(rest, rest.end()));
    for (const std::string& name : rest) {
        std::printf("%s\n", name.c_str());
    }
    return rest.empty();
}

}  // namespace

ABI_TEST(Exports, IncludeAllListedNames) {
    EXPECT(!ListedNames().empty());
    EXPECT(IsWithin(ListedNames(), ExportedNames()));
}

ABI_TEST(Exports, AreAllListed) {
    EXPECT(IsWithin(ExportedNames(), ListedNames()));
}

}  // namespace Quorvel::Abi
