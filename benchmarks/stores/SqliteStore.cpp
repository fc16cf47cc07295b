#include <sqlite3.h>

#include <stdexcept>

#include "stores/Store.h"

namespace Quorvel::Benchmarks {

namespace {

constexpr int kBusyTimeout = 60000;  // milliseconds

class Statement {
public:
    Statement(sqlite3* database, const char* text) {
        if (sqlite3_prepare_v3(database, text, -1, SQLITE_PREPARE_PERSISTENT, &statement_,
                               nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(database));
        }
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() { sqlite3_finalize(statement_); }

    void Bind(int place, const void* bytes, std::size_t size) {
        sqlite3_bind_blob64(statement_, place, bytes, size, SQLITE_STATIC);
    }

    // Returns true when there is a row.
    bool Step() {
        const int result = sqlite3_step(statement_);
        if (result != SQLITE_ROW && result != SQLITE_DONE) {
            throw std::runtime_error(std::string("SQLite: ") + sqlite3_errstr(result));
        }
        return result == SQLITE_ROW;
    }
    void Run() {
        Step();
        Reset();
    }
    void Reset() { sqlite3_reset(statement_); }

    std::span<const unsigned char> Blob() const {
        const auto* const bytes =
            static_cast<const unsigned char*>(sqlite3_column_blob(statement_, 0));
        return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, 0))};
    }

private:
    sqlite3_stmt* statement_ = nullptr;
};

class Connection {
public:
    explicit Connection(const std::string& path) {
        if (sqlite3_open(path.c_str(), &database_) != SQLITE_OK) {
            const std::string reason = sqlite3_errmsg(database_);
            sqlite3_close(database_);
            throw std::runtime_error("SQLite: " + reason);
        }
        sqlite3_busy_timeout(database_, kBusyTimeout);
        Execute("PRAGMA journal_mode=WAL");
        Execute("PRAGMA synchronous=OFF");
        Execute("CREATE TABLE IF NOT EXISTS effects(name BLOB PRIMARY KEY, bytes BLOB NOT NULL)");
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { sqlite3_close(database_); }

    sqlite3* Get() const { return database_; }

private:
    void Execute(const char* text) {
        if (sqlite3_exec(database_, text, nullptr, nullptr, nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(database_));
        }
    }

    sqlite3* database_ = nullptr;
};

// Uses a transaction per batch, prepared statements, and default settings except the two of
// Connection.
class SqliteStore : public Store {
public:
    explicit SqliteStore(const std::string& directory)
        : database_(directory + "/effects.sqlite"),
          begin_(database_.Get(), "BEGIN IMMEDIATE"),
          commit_(database_.Get(), "COMMIT"),
          insert_(database_.Get(), "INSERT OR REPLACE INTO effects VALUES(?1, ?2)"),
          select_(database_.Get(), "SELECT bytes FROM effects WHERE name = ?1") {}

    void Save(const Effect& effect) override {
        if (!isWriting_) {
            begin_.Run();
            isWriting_ = true;
        }
        insert_.Bind(1, effect.name.data(), effect.name.Length());
        insert_.Bind(2, effect.bytes.data(), effect.bytes.size());
        insert_.Run();
        if (batch_.Add(effect)) { Flush(); }
    }

    void Flush() override {
        if (isWriting_) {
            commit_.Run();
            isWriting_ = false;
        }
    }

    std::optional<std::span<const unsigned char>> Find(const CStr& name) override {
        select_.Bind(1, name.data(), name.Length());
        const bool isFound = select_.Step();
        if (isFound) {
            const std::span<const unsigned char> bytes = select_.Blob();
            found_.assign(bytes.begin(), bytes.end());
        }
        select_.Reset();
        if (!isFound) { return std::nullopt; }
        return found_;
    }

private:
    Connection database_;
    Statement begin_;
    Statement commit_;
    Statement insert_;
    Statement select_;
    bool isWriting_ = false;
    Batch batch_;
    std::vector<unsigned char> found_;
};

}  // namespace

std::unique_ptr<Store> OpenSqliteStore(const std::string& directory) {
    return std::make_unique<SqliteStore>(directory);
}

}  // namespace Quorvel::Benchmarks
