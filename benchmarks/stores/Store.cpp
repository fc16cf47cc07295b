#include "stores/Store.h"

#include <stdexcept>

namespace Quorvel::Benchmarks {

const std::vector<StoreKind>& StoreKinds() {
    static const std::vector<StoreKind> kinds = {
        {"quorvel", "Quorvel", Sharing::Any, false, OpenQuorvelStore, OpenQuorvelStore},
        {"lmdb", "LMDB", Sharing::Any, false, OpenLmdbStore, OpenLmdbStore},
        {"leveldb", "LevelDB", Sharing::OneProcessOnly, false, OpenLevelDbStore, OpenLevelDbStore},
        {"rocksdb", "RocksDB", Sharing::ReadersBeside, false, OpenRocksDbStore, OpenRocksDbReader},
        {"directory", "directory", Sharing::Any, true, OpenDirectoryStore, OpenDirectoryStore},
        {"sqlite", "SQLite", Sharing::Any, false, OpenSqliteStore, OpenSqliteStore},
    };
    return kinds;
}

const StoreKind& FindStoreKind(const std::string& name) {
    for (const StoreKind& kind : StoreKinds()) {
        if (kind.name == name) { return kind; }
    }
    throw std::runtime_error("unknown store " + name);
}

}  // namespace Quorvel::Benchmarks
