#include <lmdb.h>

#include <cstring>
#include <stdexcept>

#include "stores/Store.h"

namespace Quorvel::Benchmarks {

namespace {

// Reserved in the address space, not on the disk.
constexpr std::size_t kMapSize = std::size_t{4} << 30;

void Check(int result) {
    if (result != MDB_SUCCESS) {
        throw std::runtime_error(std::string("LMDB: ") + mdb_strerror(result));
    }
}

MDB_val ValueOf(const void* bytes, std::size_t size) {
    return {size, const_cast<void*>(bytes)};
}

// Uses a write transaction per batch, and one read transaction that is renewed for every search, so
// that the search sees what other processes have saved.
class LmdbStore : public Store {
public:
    explicit LmdbStore(const std::string& directory) {
        Check(mdb_env_create(&environment_));
        Check(mdb_env_set_mapsize(environment_, kMapSize));
        Check(mdb_env_open(environment_, directory.c_str(), MDB_NOSYNC, 0644));
        MDB_txn* setup = nullptr;
        Check(mdb_txn_begin(environment_, nullptr, 0, &setup));
        Check(mdb_dbi_open(setup, nullptr, 0, &effects_));
        Check(mdb_txn_commit(setup));
        Check(mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &reading_));
        mdb_txn_reset(reading_);
    }

    ~LmdbStore() override {
        mdb_txn_abort(reading_);
        if (writing_) { mdb_txn_abort(writing_); }
        mdb_env_close(environment_);
    }

    void Save(const Effect& effect) override {
        if (!writing_) { Check(mdb_txn_begin(environment_, nullptr, 0, &writing_)); }
        MDB_val name = ValueOf(effect.name.data(), effect.name.Length());
        MDB_val bytes = ValueOf(effect.bytes.data(), effect.bytes.size());
        Check(mdb_put(writing_, effects_, &name, &bytes, 0));
        if (batch_.Add(effect)) { Flush(); }
    }

    void Flush() override {
        if (writing_) {
            MDB_txn* const done = writing_;
            writing_ = nullptr;
            Check(mdb_txn_commit(done));
        }
    }

    std::optional<std::span<const unsigned char>> Find(const CStr& name) override {
        Check(mdb_txn_renew(reading_));
        MDB_val key = ValueOf(name.data(), name.Length());
        MDB_val bytes;
        const int result = mdb_get(reading_, effects_, &key, &bytes);
        if (result == MDB_SUCCESS) {
            found_.resize(bytes.mv_size);
            std::memcpy(found_.data(), bytes.mv_data, bytes.mv_size);
        }
        mdb_txn_reset(reading_);
        if (result == MDB_NOTFOUND) { return std::nullopt; }
        Check(result);
        return found_;
    }

private:
    MDB_env* environment_ = nullptr;
    MDB_dbi effects_ = 0;
    MDB_txn* writing_ = nullptr;
    MDB_txn* reading_ = nullptr;
    Batch batch_;
    std::vector<unsigned char> found_;
};

}  // namespace

std::unique_ptr<Store> OpenLmdbStore(const std::string& directory) {
    return std::make_unique<LmdbStore>(directory);
}

}  // namespace Quorvel::Benchmarks
