// The binary interface of the C library, which hosts were compiled with: names, types and numbers.
// Functions and numbers may be added; none of these may change.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel.h>

#include <string>
#include <type_traits>

#include "api/SymbolTable.h"

namespace Quorvel::Testing {

namespace {

// The name of a function, if it has this type.
template <typename Expected, typename Actual>
std::string Name(const char* name, Actual* /*function*/) {
    static_assert(std::is_same_v<Expected, Actual>);
    return name;
}
#define NAME(function, ...) Name<__VA_ARGS__>(#function, &(function))

using Cache = quorvel_cache;
using Package = quorvel_package;
using Status = quorvel_status;
using Stream = quorvel_stream;
using std::size_t;

std::set<std::string> Functions() {
    return {
        NAME(quorvel_status_text, const char*(Status)),
        NAME(quorvel_last_error, const char*()),
        NAME(quorvel_last_system_error, uint32_t()),
        NAME(quorvel_version, const char*()),
        NAME(quorvel_cache_open, Status(const char*, Cache**)),
        NAME(quorvel_cache_close, void(Cache*)),
        NAME(quorvel_cache_add, Status(Cache*, const void*, size_t, const void*, size_t, int)),
        NAME(quorvel_cache_find, Status(Cache*, const void*, size_t, void*, size_t, size_t*)),
        NAME(quorvel_cache_visit,
             Status(Cache*, const void*, size_t, int (*)(void*, const void*, size_t), void*)),
        NAME(quorvel_cache_save, Status(Cache*)),
        NAME(quorvel_cache_list, Status(Cache*, const char*)),
        NAME(quorvel_cache_is_enabled, int(const Cache*)),
        NAME(quorvel_cache_set_enabled, void(Cache*, int)),
        NAME(quorvel_cache_effects_in_file, uint64_t(const Cache*)),
        NAME(quorvel_cache_effects_in_memory, uint64_t(const Cache*)),
        NAME(quorvel_cache_directory, const char*(const Cache*)),
        NAME(quorvel_package_create, Status(const char*, uint64_t, uint64_t, Package**)),
        NAME(quorvel_package_open, Status(const char*, uint64_t, uint64_t, Package**)),
        NAME(quorvel_package_close, void(Package*)),
        NAME(quorvel_package_commit, Status(Package*)),
        NAME(quorvel_package_load, Status(Package*)),
        NAME(quorvel_package_header_size, uint64_t(const Package*)),
        NAME(quorvel_package_read_header, Status(const Package*, void*, size_t, size_t*)),
        NAME(quorvel_package_write_header, Status(Package*, const void*, size_t)),
        NAME(quorvel_package_stream_count, uint64_t(const Package*)),
        NAME(quorvel_package_total_size, uint64_t(const Package*)),
        NAME(quorvel_package_stream_id, uint64_t(const Package*, uint64_t)),
        NAME(quorvel_package_create_stream, Status(Package*, uint64_t, uint64_t*)),
        NAME(quorvel_package_delete_stream, Status(Package*, uint64_t)),
        NAME(quorvel_stream_open, Status(Package*, uint64_t, Stream**)),
        NAME(quorvel_stream_close, void(Stream*)),
        NAME(quorvel_stream_size, uint64_t(const Stream*)),
        NAME(quorvel_stream_position, uint64_t(const Stream*)),
        NAME(quorvel_stream_seek, Status(Stream*, int64_t, quorvel_origin)),
        NAME(quorvel_stream_read, Status(Stream*, void*, size_t, size_t*)),
        NAME(quorvel_stream_write, Status(Stream*, const void*, size_t, size_t*)),
    };
}

static_assert(sizeof(quorvel_status) == 4 && sizeof(quorvel_origin) == 4);
static_assert(QUORVEL_OK == 0);
static_assert(QUORVEL_ERROR_ARGUMENT == 1);
static_assert(QUORVEL_ERROR_OUT_OF_MEMORY == 2);
static_assert(QUORVEL_ERROR_NOT_FOUND == 3);
static_assert(QUORVEL_ERROR_BUFFER_TOO_SMALL == 4);
static_assert(QUORVEL_ERROR_STOPPED == 5);
static_assert(QUORVEL_ERROR_UNUSABLE == 6);
static_assert(QUORVEL_ERROR_IO == 7);
static_assert(QUORVEL_ERROR_DAMAGED == 8);
static_assert(QUORVEL_ERROR_LIMIT == 9);
static_assert(QUORVEL_ERROR_BUSY == 10);
static_assert(QUORVEL_ERROR_SYSTEM == 11);
static_assert(QUORVEL_ERROR_INTERNAL == 12);
static_assert(QUORVEL_FROM_START == 0 && QUORVEL_FROM_CURRENT == 1 && QUORVEL_FROM_END == 2);
static_assert(QUORVEL_LARGEST_NAME == 65536 && QUORVEL_LARGEST_EFFECT == 1048576);
static_assert(QUORVEL_LARGEST_STREAM == 0x7FFFFFFF && QUORVEL_NO_STREAM == ~uint64_t{0});

}  // namespace

TEST(CInterface, ExportsExactlyItsFunctions) {
    EXPECT_THAT(ExportedNames(QUORVEL_C_LIBRARY_FILE), ::testing::ContainerEq(Functions()));
}

TEST(CInterface, KnowsItsVersion) {
    EXPECT_STREQ(quorvel_version(), QUORVEL_EXPECTED_VERSION);
}

}  // namespace Quorvel::Testing
