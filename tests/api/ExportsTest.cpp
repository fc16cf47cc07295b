// Compares the names that the shared library exports with the list in this folder. A change of the
// exported interface must update the list.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "api/SymbolTable.h"

namespace Quorvel::Testing {

namespace {

using Names = std::set<std::string>;

Names ListedNames() {
    std::ifstream list(QUORVEL_EXPORT_LIST);
    Names names;
    for (std::string line; std::getline(list, line);) {
        if (!line.empty() && line.back() == '\r') { line.pop_back(); }
        names.insert(line);
    }
    return names;
}

// The names in the first set that are not in the second.
Names Difference(const Names& names, const Names& others) {
    Names difference;
    std::set_difference(names.begin(), names.end(), others.begin(), others.end(),
                        std::inserter(difference, difference.end()));
    return difference;
}

}  // namespace

TEST(Exports, IncludeAllListedNames) {
    ASSERT_THAT(ListedNames(), ::testing::Not(::testing::IsEmpty()));
    EXPECT_THAT(Difference(ListedNames(), ExportedNames(QUORVEL_LIBRARY_FILE)),
                ::testing::IsEmpty());
}

TEST(Exports, AreAllListed) {
    EXPECT_THAT(Difference(ExportedNames(QUORVEL_LIBRARY_FILE), ListedNames()),
                ::testing::IsEmpty());
}

}  // namespace Quorvel::Testing
