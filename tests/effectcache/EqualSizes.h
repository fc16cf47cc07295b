#pragma once

#include <iosfwd>
#include <map>
#include <string>

#include "effectcache/CacheClient.h"

// Effects of equal size: if the cache mistakes one stream for another, only the bytes reveal it.
// Also the states that a failed save of such effects may leave.
namespace Quorvel::Testing {

using Contents = std::map<std::string, Bytes>;

constexpr std::size_t kEqualSize = 9000;  // a whole page and a tail

// The file's contents before and after a save that replaces some effects and adds others.
const Contents& OldContents();
const Contents& NewContents();

// Writes a cache file with the old contents.
void WriteOldCache(const std::string& path);

// Queues the effects that turn the old contents into the new ones.
void AddNew(CacheClient& cache);

// Searches for all names. Fails the test if a name has bytes that it never had.
Contents FindAll(CacheClient& cache);

enum class State { Empty, Old, New, Other };
State StateOf(CacheClient& cache);
std::ostream& operator<<(std::ostream& out, State state);

}  // namespace Quorvel::Testing
