#pragma once

#include <iosfwd>
#include <map>
#include <string>

#include "effectcache/CacheClient.h"

// Effects that all have one size, so that a stream taken for another one passes every check but
// that of its bytes; and what becomes of them when a save of some of them goes wrong.
namespace Quorvel::Testing {

using Contents = std::map<std::string, Bytes>;

constexpr std::size_t kEqualSize = 9000;  // a whole page and a tail

// What the file holds before, and what it holds after a save that replaces some and adds others.
const Contents& OldContents();
const Contents& NewContents();

// Makes a cache of the old contents in a file.
void WriteOldCache(const std::string& path);

// Queues what makes the new contents of the old ones.
void AddNew(CacheClient& cache);

// What is found of all names. Fails the test when a name has bytes that it never had.
Contents FindAll(CacheClient& cache);

enum class State { Empty, Old, New, Other };
State StateOf(CacheClient& cache);
std::ostream& operator<<(std::ostream& out, State state);

}  // namespace Quorvel::Testing
