// The C library, used by a client. tests/capi pins its interface.
#include <quorvel.h>
#include <windows.h>

#include <cstring>
#include <string>

#include "Check.h"

namespace Quorvel::Abi {

namespace {

DWORD WINAPI FailInAnotherThread(void* /*unused*/) {
    const bool isNew = *quorvel_last_error() == '\0';
    quorvel_cache* cache = nullptr;
    return isNew && quorvel_cache_open("", &cache) == QUORVEL_ERROR_ARGUMENT &&
           std::strstr(quorvel_last_error(), "directory");
}

}  // namespace

ABI_TEST(CLibrary, FindsEffectsAgainAfterASave) {
    const std::string folder = NewTemporaryFolder();
    quorvel_cache* cache = nullptr;
    EXPECT(quorvel_cache_open(folder.c_str(), &cache) == QUORVEL_OK);
    EXPECT(quorvel_cache_add(cache, "bloom", 5, "code", 4, 0) == QUORVEL_OK);
    quorvel_cache_close(cache);
    EXPECT(quorvel_cache_open(folder.c_str(), &cache) == QUORVEL_OK);
    EXPECT(quorvel_cache_effects_in_file(cache) == 1);
    char code[4] = {};
    std::size_t size = 0;
    EXPECT(quorvel_cache_find(cache, "bloom", 5, code, sizeof code, &size) == QUORVEL_OK);
    EXPECT(size == 4 && std::memcmp(code, "code", 4) == 0);
    EXPECT(quorvel_cache_find(cache, "blur", 4, code, sizeof code, &size) ==
           QUORVEL_ERROR_NOT_FOUND);
    quorvel_cache_close(cache);
}

ABI_TEST(CLibrary, TurnsExceptionsIntoErrors) {
    quorvel_package* package = nullptr;
    EXPECT(quorvel_package_create(TemporaryFile("errors").c_str(), 8, 10, &package) == QUORVEL_OK);
    std::uint64_t id = 0;
    EXPECT(quorvel_package_create_stream(package, 0, &id) == QUORVEL_OK);
    quorvel_stream* stream = nullptr;
    EXPECT(quorvel_stream_open(package, id, &stream) == QUORVEL_ERROR_DAMAGED);
    EXPECT(!stream);
    quorvel_package_close(package);
}

ABI_TEST(CLibrary, KeepsTheLastErrorOfEachThread) {
    EXPECT(quorvel_cache_save(nullptr) == QUORVEL_ERROR_ARGUMENT);
    const std::string error = quorvel_last_error();
    const HANDLE thread = ::CreateThread(nullptr, 0, &FailInAnotherThread, nullptr, 0, nullptr);
    EXPECT(thread && ::WaitForSingleObject(thread, INFINITE) == WAIT_OBJECT_0);
    DWORD passed = 0;
    EXPECT(::GetExitCodeThread(thread, &passed) && passed == 1);
    ::CloseHandle(thread);
    EXPECT(error == quorvel_last_error());
}

}  // namespace Quorvel::Abi
