#include <rocksdb/db.h>
#include <rocksdb/options.h>
#include <rocksdb/write_batch.h>

#include <filesystem>
#include <stdexcept>

#include "stores/Store.h"
#include "support/ScratchDirectory.h"

namespace Quorvel::Benchmarks {

namespace {

void Check(const rocksdb::Status& status) {
    if (!status.ok()) { throw std::runtime_error("RocksDB: " + status.ToString()); }
}

rocksdb::Slice SliceOf(const CStr& name) {
    return {name.data(), name.Length()};
}

std::optional<std::span<const unsigned char>> Get(rocksdb::DB& effects, const CStr& name,
                                                  std::string& found) {
    const rocksdb::Status status = effects.Get({}, SliceOf(name), &found);
    if (status.IsNotFound()) { return std::nullopt; }
    Check(status);
    return std::span(reinterpret_cast<const unsigned char*>(found.data()), found.size());
}

// There is no log, so writes stay in memory until they are flushed.
class RocksDbStore : public Store {
public:
    explicit RocksDbStore(const std::string& directory) {
        rocksdb::Options options;
        options.create_if_missing = true;
        options.compression = rocksdb::kNoCompression;
        rocksdb::DB* opened = nullptr;
        Check(rocksdb::DB::Open(options, directory, &opened));
        effects_.reset(opened);
    }

    void Save(const Effect& effect) override {
        Check(waiting_.Put(
            SliceOf(effect.name),
            {reinterpret_cast<const char*>(effect.bytes.data()), effect.bytes.size()}));
        if (batch_.Add(effect)) { Write(); }
    }

    void Flush() override {
        Write();
        Check(effects_->Flush({}));
    }

    std::optional<std::span<const unsigned char>> Find(const CStr& name) override {
        return Get(*effects_, name, found_);
    }

private:
    void Write() {
        rocksdb::WriteOptions options;
        options.disableWAL = true;
        Check(effects_->Write(options, &waiting_));
        waiting_.Clear();
    }

    std::unique_ptr<rocksdb::DB> effects_;
    rocksdb::WriteBatch waiting_;
    Batch batch_;
    std::string found_;
};

// A secondary instance, which catches up with the writing one before every search.
class RocksDbReader : public Store {
public:
    explicit RocksDbReader(const std::string& directory) {
        rocksdb::Options options;
        options.max_open_files = -1;  // required by a secondary instance
        rocksdb::DB* opened = nullptr;
        Check(rocksdb::DB::OpenAsSecondary(options, directory, messages_.Path(), &opened));
        effects_.reset(opened);
    }

    void Save(const Effect& /*effect*/) override { throw std::runtime_error("a reader"); }
    void Flush() override {}

    std::optional<std::span<const unsigned char>> Find(const CStr& name) override {
        Check(effects_->TryCatchUpWithPrimary());
        return Get(*effects_, name, found_);
    }

private:
    // For the secondary instance's message log.
    const ScratchDirectory messages_{std::filesystem::temp_directory_path()};
    std::unique_ptr<rocksdb::DB> effects_;
    std::string found_;
};

}  // namespace

std::unique_ptr<Store> OpenRocksDbStore(const std::string& directory) {
    return std::make_unique<RocksDbStore>(directory);
}

std::unique_ptr<Store> OpenRocksDbReader(const std::string& directory) {
    return std::make_unique<RocksDbReader>(directory);
}

}  // namespace Quorvel::Benchmarks
