#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/EffectSource.h"

namespace Quorvel::Benchmarks {

// Keeps effects in a directory, as a host would for its shader cache. No store asks the system to
// sync to the disk. For one thread at a time; errors are thrown. Destruction closes the store; the
// next process that opens it finds everything that was flushed.
class Store {
public:
    Store() = default;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    virtual ~Store() = default;

    // Adds an effect. When the waiting effects reach kBatchSize, as counted by Batch, they are
    // saved as one transaction or the store's equivalent.
    virtual void Save(const Effect& effect) = 0;

    // Saves the waiting effects, so that other processes find them.
    virtual void Flush() = 0;

    // The bytes saved under a name, copied from the store into memory that the next search reuses.
    virtual std::optional<std::span<const unsigned char>> Find(const CStr& name) = 0;
};

// Counts waiting bytes as the effect cache does: for each effect its name, its bytes, and 60 bytes
// of overhead.
class Batch {
public:
    // Returns true when this effect completes the batch, which is then empty again.
    bool Add(const Effect& effect) {
        bytes_ += kRecordSize + effect.name.Length() + effect.bytes.size();
        if (bytes_ < kBatchSize) { return false; }
        bytes_ = 0;
        return true;
    }

private:
    static constexpr std::uint64_t kBatchSize = 0x200000;
    static constexpr std::uint64_t kRecordSize = 60;

    std::uint64_t bytes_ = 0;
};

// What a process may do with a directory that other processes have open.
enum class Sharing {
    Any,             // any process may save and search
    ReadersBeside,   // one process saves; others search through StoreKind::openReader
    OneProcessOnly,  // no other process can open it
};

struct StoreKind {
    std::string name;   // on the command line and in the results
    std::string title;  // in the table
    Sharing sharing;
    bool hasFilePerEffect;
    std::unique_ptr<Store> (*open)(const std::string& directory);

    // Opens the store only for searching, beside a process that saves. Every search sees what was
    // flushed before it.
    std::unique_ptr<Store> (*openReader)(const std::string& directory);
};

const std::vector<StoreKind>& StoreKinds();

// Throws std::runtime_error when there is no store of that name.
const StoreKind& FindStoreKind(const std::string& name);

std::unique_ptr<Store> OpenQuorvelStore(const std::string& directory);
std::unique_ptr<Store> OpenLmdbStore(const std::string& directory);
std::unique_ptr<Store> OpenLevelDbStore(const std::string& directory);
std::unique_ptr<Store> OpenRocksDbStore(const std::string& directory);
std::unique_ptr<Store> OpenRocksDbReader(const std::string& directory);
std::unique_ptr<Store> OpenDirectoryStore(const std::string& directory);
std::unique_ptr<Store> OpenSqliteStore(const std::string& directory);

}  // namespace Quorvel::Benchmarks
