#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include <stdexcept>

#include "stores/Store.h"

namespace Quorvel::Benchmarks {

namespace {

void Check(const leveldb::Status& status) {
    if (!status.ok()) { throw std::runtime_error("LevelDB: " + status.ToString()); }
}

leveldb::Slice SliceOf(const CStr& name) {
    return {name.data(), name.Length()};
}

class LevelDbStore : public Store {
public:
    explicit LevelDbStore(const std::string& directory) {
        leveldb::Options options;
        options.create_if_missing = true;
        options.compression = leveldb::kNoCompression;
        leveldb::DB* opened = nullptr;
        Check(leveldb::DB::Open(options, directory, &opened));
        effects_.reset(opened);
    }

    void Save(const Effect& effect) override {
        waiting_.Put(SliceOf(effect.name),
                     {reinterpret_cast<const char*>(effect.bytes.data()), effect.bytes.size()});
        if (batch_.Add(effect)) { Flush(); }
    }

    void Flush() override {
        Check(effects_->Write({}, &waiting_));
        waiting_.Clear();
    }

    std::optional<std::span<const unsigned char>> Find(const CStr& name) override {
        const leveldb::Status status = effects_->Get({}, SliceOf(name), &found_);
        if (status.IsNotFound()) { return std::nullopt; }
        Check(status);
        return std::span(reinterpret_cast<const unsigned char*>(found_.data()), found_.size());
    }

private:
    std::unique_ptr<leveldb::DB> effects_;
    leveldb::WriteBatch waiting_;
    Batch batch_;
    std::string found_;
};

}  // namespace

std::unique_ptr<Store> OpenLevelDbStore(const std::string& directory) {
    return std::make_unique<LevelDbStore>(directory);
}

}  // namespace Quorvel::Benchmarks
