// Sizes and offsets that existing hosts were compiled with.
#include <quorvel/Quorvel.h>

#include <cstddef>

#include "Check.h"
#include "Slots.h"

namespace Quorvel::Abi {

static_assert(sizeof(std::exception) == 24);
static_assert(sizeof(FileIOException) == 32);
static_assert(sizeof(FileDataCorruptException) == 24);
static_assert(sizeof(InvalidParameterException) == 24);
static_assert(sizeof(OutOfMemoryException) == 24);
static_assert(sizeof(Win32APICallFailedException) == 32);

static_assert(sizeof(Util::ARefObject) == 16);
static_assert(sizeof(IDataStream) == 16);
static_assert(sizeof(IDataStreamSet) == 16);
static_assert(sizeof(EffectCacheSystem) == 24);
static_assert(sizeof(MutexObject) == 8);
static_assert(sizeof(AutoMutex) == 16);
static_assert(sizeof(MultiProcessMemory) == 40);
static_assert(sizeof(MultiProcessTimeStamp) == 64);
static_assert(sizeof(TimeStampRecord) == 24);

static_assert(sizeof(PagedFilePackageConfig) == 24);
static_assert(offsetof(PagedFilePackageConfig, fileName) == 0);
static_assert(offsetof(PagedFilePackageConfig, pageCacheCapacity) == 8);
static_assert(offsetof(PagedFilePackageConfig, streamLimit) == 16);

static_assert(sizeof(VertexNormalsControl) == 16);
static_assert(offsetof(VertexNormalsControl, enabled) == 0);
static_assert(offsetof(VertexNormalsControl, reference) == 8);

static_assert(sizeof(CStr) == 16);
static_assert(sizeof(Tab<unsigned char>) == 16);
static_assert(sizeof(Util::RefPtr<IDataStream>) == 8);

// offsetof does not support classes with virtual operations.
ABI_TEST(Layout, OfErrorsPutsTheCodeAfterTheBaseClass) {
    const FileIOException file(17);
    EXPECT(FieldAt<std::uint32_t>(&file, 24) == 17);
    const Win32APICallFailedException system(18);
    EXPECT(FieldAt<std::uint32_t>(&system, 24) == 18);
}

ABI_TEST(Layout, OfReferenceCountedObjectsPutsTheCountAfterTheTablePointer) {
    struct Object : Util::ARefObject {};
    const Util::RefPtr<Object> first(new Object);
    const Util::RefPtr<Object> second(first);
    EXPECT(FieldAt<std::uint32_t>(first.Get(), 8) == 2);
}

}  // namespace Quorvel::Abi
