// What every C function has in common: null, last errors, memory that runs out.
#include <gtest/gtest.h>
#include <quorvel.h>

#include <cerrno>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capi/Handles.h"
#include "faults/Memory.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

int KeepGoing(void* /*context*/, const void* /*data*/, std::size_t /*size*/) {
    return 0;
}

// A cache with an effect and a package with a stream.
class CErrors : public ::testing::Test {
protected:
    CErrors() {
        EXPECT_EQ(AddEffect(cache_, "bloom", "code"), QUORVEL_OK);
        quorvel_package* package = nullptr;
        EXPECT_EQ(quorvel_package_create(directory_.File("package").c_str(), 64, 100, &package),
                  QUORVEL_OK);
        package_.reset(package);
        EXPECT_EQ(quorvel_package_create_stream(package_.get(), 9000, &id_), QUORVEL_OK);
        EXPECT_EQ(quorvel_package_commit(package_.get()), QUORVEL_OK);
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.Path().string();
    CacheHandle cache_ = OpenCache(path_);
    PackageHandle package_;
    std::uint64_t id_ = 0;
};

}  // namespace

TEST_F(CErrors, RefuseNullWhereSomethingIsNeeded) {
    const std::string file = directory_.File("other");
    const StreamHandle stream = OpenStream(package_, id_);
    quorvel_cache* const cache = cache_.get();
    quorvel_package* const package = package_.get();
    char buffer[1] = {};
    std::size_t size = 0;
    std::uint64_t id = 0;
    quorvel_cache* newCache = nullptr;
    quorvel_package* newPackage = nullptr;
    quorvel_stream* newStream = nullptr;
    const std::vector<quorvel_status> results = {
        quorvel_cache_open(nullptr, &newCache),
        quorvel_cache_open(path_.c_str(), nullptr),
        quorvel_cache_add(nullptr, "n", 1, "c", 1, 0),
        quorvel_cache_add(cache, nullptr, 1, "c", 1, 0),
        quorvel_cache_add(cache, "n", 1, nullptr, 1, 0),
        quorvel_cache_find(nullptr, "bloom", 5, buffer, 1, &size),
        quorvel_cache_find(cache, nullptr, 5, buffer, 1, &size),
        quorvel_cache_find(cache, "bloom", 5, nullptr, 1, &size),
        quorvel_cache_find(cache, "bloom", 5, buffer, 1, nullptr),
        quorvel_cache_visit(nullptr, "bloom", 5, &KeepGoing, nullptr),
        quorvel_cache_visit(cache, nullptr, 5, &KeepGoing, nullptr),
        quorvel_cache_visit(cache, "bloom", 5, nullptr, nullptr),
        quorvel_cache_save(nullptr),
        quorvel_cache_list(nullptr, file.c_str()),
        quorvel_cache_list(cache, nullptr),
        quorvel_package_create(nullptr, 1, 1, &newPackage),
        quorvel_package_create(file.c_str(), 1, 1, nullptr),
        quorvel_package_open(nullptr, 1, 1, &newPackage),
        quorvel_package_open(file.c_str(), 1, 1, nullptr),
        quorvel_package_commit(nullptr),
        quorvel_package_load(nullptr),
        quorvel_package_read_header(nullptr, buffer, 1, &size),
        quorvel_package_read_header(package, nullptr, 1, &size),
        quorvel_package_read_header(package, buffer, 1, nullptr),
        quorvel_package_write_header(nullptr, "h", 1),
        quorvel_package_write_header(package, nullptr, 1),
        quorvel_package_create_stream(nullptr, 1, &id),
        quorvel_package_create_stream(package, 1, nullptr),
        quorvel_package_delete_stream(nullptr, id_),
        quorvel_stream_open(nullptr, id_, &newStream),
        quorvel_stream_open(package, id_, nullptr),
        quorvel_stream_seek(nullptr, 0, QUORVEL_FROM_START),
        quorvel_stream_read(nullptr, buffer, 1, &size),
        quorvel_stream_read(stream.get(), nullptr, 1, &size),
        quorvel_stream_read(stream.get(), buffer, 1, nullptr),
        quorvel_stream_write(nullptr, buffer, 1, &size),
        quorvel_stream_write(stream.get(), nullptr, 1, &size),
        quorvel_stream_write(stream.get(), buffer, 1, nullptr),
    };
    for (std::size_t index = 0; index < results.size(); ++index) {
        EXPECT_EQ(results[index], QUORVEL_ERROR_ARGUMENT) << "call " << index;
    }
    EXPECT_EQ(quorvel_cache_effects_in_memory(cache), 1U);
    EXPECT_EQ(quorvel_package_stream_count(package), 1U);
    EXPECT_EQ(quorvel_stream_position(stream.get()), 0U);
    EXPECT_EQ(quorvel_package_header_size(package), 0U);
}

TEST_F(CErrors, LeaveFunctionsWithoutAStatusSafeOnNull) {
    quorvel_cache_close(nullptr);
    quorvel_cache_set_enabled(nullptr, 1);
    EXPECT_EQ(quorvel_cache_is_enabled(nullptr), 0);
    EXPECT_EQ(quorvel_cache_effects_in_file(nullptr), 0U);
    EXPECT_EQ(quorvel_cache_effects_in_memory(nullptr), 0U);
    EXPECT_STREQ(quorvel_cache_directory(nullptr), "");
    quorvel_package_close(nullptr);
    EXPECT_EQ(quorvel_package_header_size(nullptr), 0U);
    EXPECT_EQ(quorvel_package_stream_count(nullptr), 0U);
    EXPECT_EQ(quorvel_package_total_size(nullptr), 0U);
    EXPECT_EQ(quorvel_package_stream_id(nullptr, 0), QUORVEL_NO_STREAM);
    quorvel_stream_close(nullptr);
    EXPECT_EQ(quorvel_stream_size(nullptr), 0U);
    EXPECT_EQ(quorvel_stream_position(nullptr), 0U);
}

TEST_F(CErrors, EachHaveATextOfTheirOwn) {
    std::set<std::string> texts;
    for (int status = QUORVEL_OK; status <= QUORVEL_ERROR_INTERNAL; ++status) {
        texts.insert(quorvel_status_text(static_cast<quorvel_status>(status)));
    }
    EXPECT_EQ(texts.size(), QUORVEL_ERROR_INTERNAL + 1U);
    EXPECT_EQ(texts.count("unknown status"), 0U);
    EXPECT_STREQ(quorvel_status_text(static_cast<quorvel_status>(13)), "unknown status");
}

TEST_F(CErrors, BelongToTheThreadThatCalled) {
    EXPECT_EQ(quorvel_cache_save(nullptr), QUORVEL_ERROR_ARGUMENT);
    std::thread([&] {
        EXPECT_STREQ(quorvel_last_error(), "");
        EXPECT_EQ(quorvel_last_system_error(), 0U);
        std::size_t size = 0;
        EXPECT_EQ(quorvel_cache_find(cache_.get(), "blur", 4, nullptr, 0, &size),
                  QUORVEL_ERROR_NOT_FOUND);
        EXPECT_STREQ(quorvel_last_error(), "not found");
    }).join();
    EXPECT_STREQ(quorvel_last_error(), "invalid argument: the cache must not be null");
    EXPECT_EQ(quorvel_cache_save(cache_.get()), QUORVEL_OK);
    EXPECT_STREQ(quorvel_last_error(), "invalid argument: the cache must not be null");
}

// Calls each function with its first allocation and all later ones failing, then with the second
// and all later ones, and so on, until none is left to fail.
TEST_F(CErrors, ReportThatMemoryRunsOut) {
    const std::string other = directory_.File("other");
    const std::string text(20000, 'x');
    std::string effect(text.size(), '\0');
    const auto makePackage = [&](auto make) {
        quorvel_package* package = nullptr;
        const quorvel_status status = make(other.c_str(), 64, 100, &package);
        EXPECT_EQ(package != nullptr, status == QUORVEL_OK);
        quorvel_package_close(package);
        return status;
    };
    using Call = std::function<quorvel_status()>;
    const std::vector<std::pair<const char*, Call>> calls = {
        {"cache_open",
         [&] {
             quorvel_cache* cache = nullptr;
             const quorvel_status status = quorvel_cache_open(path_.c_str(), &cache);
             EXPECT_EQ(cache != nullptr, status == QUORVEL_OK);
             quorvel_cache_close(cache);
             return status;
         }},
        {"cache_add",
         [&] { return quorvel_cache_add(cache_.get(), "blur", 4, text.data(), text.size(), 0); }},
        {"cache_find",
         [&] {
             std::size_t size = 0;
             return quorvel_cache_find(cache_.get(), "bloom", 5, effect.data(), effect.size(),
                                       &size);
         }},
        {"cache_visit",
         [&] { return quorvel_cache_visit(cache_.get(), "bloom", 5, &KeepGoing, nullptr); }},
        {"write_header",
         [&] { return quorvel_package_write_header(package_.get(), text.data(), text.size()); }},
        {"create_stream",
         [&] {
             std::uint64_t id = 0;
             return quorvel_package_create_stream(package_.get(), text.size(), &id);
         }},
        {"stream_open",
         [&] {
             quorvel_stream* stream = nullptr;
             const quorvel_status status = quorvel_stream_open(package_.get(), id_, &stream);
             EXPECT_EQ(stream != nullptr, status == QUORVEL_OK);
             quorvel_stream_close(stream);
             return status;
         }},
        {"package_commit", [&] { return quorvel_package_commit(package_.get()); }},
        {"package_load", [&] { return quorvel_package_load(package_.get()); }},
        {"delete_stream",
         [&] {
             const std::uint64_t id = quorvel_package_stream_id(package_.get(), 0);
             return quorvel_package_delete_stream(package_.get(), id);
         }},
        {"package_create", [&] { return makePackage(&quorvel_package_create); }},
        {"package_open", [&] { return makePackage(&quorvel_package_open); }},
    };
    for (const auto& [name, call] : calls) {
        SCOPED_TRACE(name);
        std::uint64_t reported = 0;
        for (std::uint64_t skipped = 0;; ++skipped) {
            quorvel_status status = QUORVEL_OK;
            std::uint64_t failures = 0;
            {
                const MemoryFault fault(skipped, MemoryFault::kEveryLaterCall);
                const LibraryCall inside;
                status = call();
                failures = fault.Failures();
            }
            if (failures == 0) {
                EXPECT_EQ(status, QUORVEL_OK);
                break;
            }
            if (status == QUORVEL_ERROR_OUT_OF_MEMORY) { ++reported; }
            // Without memory, the cache itself ignores effects, does not find them, or can't be
            // opened; on Linux, the system's part of a mutex reports ENOMEM.
            EXPECT_TRUE(status == QUORVEL_OK || status == QUORVEL_ERROR_OUT_OF_MEMORY ||
                        status == QUORVEL_ERROR_NOT_FOUND || status == QUORVEL_ERROR_UNUSABLE ||
                        (status == QUORVEL_ERROR_SYSTEM && quorvel_last_system_error() == ENOMEM))
                << quorvel_last_error();
        }
        EXPECT_GT(reported, 0U);
    }
    EXPECT_EQ(FindEffect(cache_, "bloom"), "code");
    EXPECT_EQ(FindEffect(cache_, "blur"), text);
}

TEST_F(CErrors, AreNotCausedByMemoryWhereNoneIsNeeded) {
    const std::string list = directory_.File("list");
    char buffer[4];
    std::size_t size = 0;
    EXPECT_EQ(quorvel_package_write_header(package_.get(), "head", 4), QUORVEL_OK);
    const MemoryFault fault(0, MemoryFault::kEveryLaterCall);
    const LibraryCall inside;
    EXPECT_EQ(quorvel_package_read_header(package_.get(), buffer, sizeof buffer, &size),
              QUORVEL_OK);
    EXPECT_EQ(quorvel_cache_list(cache_.get(), list.c_str()), QUORVEL_OK);
}

// A save that fails ends the use of a cache, so each try has a cache of its own.
TEST_F(CErrors, ReportASaveForWhichMemoryRunsOut) {
    std::uint64_t failures = 1;
    for (std::uint64_t skipped = 0; failures > 0; ++skipped) {
        const CacheHandle cache = OpenCache(path_);
        const std::string name = "blur" + std::to_string(skipped);
        EXPECT_EQ(AddEffect(cache, name, "code"), QUORVEL_OK);
        quorvel_status status = QUORVEL_OK;
        {
            const MemoryFault fault(skipped, MemoryFault::kEveryLaterCall);
            const LibraryCall inside;
            status = quorvel_cache_save(cache.get());
            failures = fault.Failures();
        }
        if (failures == 0 || status != QUORVEL_OK) {
            EXPECT_EQ(status, failures == 0 ? QUORVEL_OK : QUORVEL_ERROR_UNUSABLE);
        }
        EXPECT_EQ(FindEffect(OpenCache(path_), name).has_value(), status == QUORVEL_OK);
    }
}

}  // namespace Quorvel::Testing
