#include "stores/Store.h"

#include <stdexcept>

namespace Quorvel::Benchmarks {

const std::vector<StoreKind>& StoreKinds() {
    static const std::vector<StoreKind> kinds = {
        {"quorvel", "Quorvel", Sharing::Any, OpenQuorvelStore, OpenQuorvelStore},
        {"lmdb", "LMDB", Sharing::Any, OpenLmdbStore, OpenLmdbStore},
        {"leveldb", "LevelDB", Sharing::OneProcessOnly, OpenLevelDbStore, OpenLevelDbStore},
        {"rocksdb", "RocksDB", Sharing::ReadersBeside, OpenRocksDbStore, OpenRocksDbReader},
        {"directory", "directory", Sharing::Any, OpenDirectoryStore, OpenDirectoryStore},
        {"sqlite", "SQLite", Sharing::Any, OpenSqliteStore, OpenSqliteStore},
    };
    return kinds;
}

const StoreKind& FindStoreKind(const std::string& name) {
    for (const StoreKind& kind : StoreKinds()) {
        if (kind.name == name) {
            return kind;
        }
    }
    throw std::runtime_error("there is no store " + name);
}

}  // namespace Quorvel::Benchmarks
