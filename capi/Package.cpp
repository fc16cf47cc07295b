#include <cerrno>
#include <cstdio>
#include <limits>

#include "Status.h"
#include "quorvel/FilePackage.h"

using Quorvel::IDataStream;
using Quorvel::IDataStreamSet;
using namespace Quorvel::C;

namespace {

// The number of open handles to a package's streams. They may outlive the package.
struct OpenHandles : Util::ARefObject {
    std::uint64_t count = 0;
};

}  // namespace

struct quorvel_package {
    Util::RefPtr<IDataStreamSet> set;
    Util::RefPtr<OpenHandles> handles;
};

struct quorvel_stream {
    Util::RefPtr<IDataStream> stream;
    Util::RefPtr<OpenHandles> handles;
};

static_assert(QUORVEL_NO_STREAM == Quorvel::kInvalidStreamId);
static_assert(QUORVEL_FROM_START == Quorvel::kSeekFromStart);
static_assert(QUORVEL_FROM_CURRENT == Quorvel::kSeekFromCurrent);
static_assert(QUORVEL_FROM_END == Quorvel::kSeekFromEnd);

namespace {

void RequirePackage(const quorvel_package* package) {
    Require(package, "the package must not be null");
}

void RequireStream(const quorvel_stream* stream) {
    Require(stream, "the stream must not be null");
}

// The status of a package that could not be opened or loaded; the library leaves the cause in
// errno.
quorvel_status FailToLoad() {
    if (errno != 0) { throw Quorvel::FileIOException(static_cast<std::uint32_t>(errno)); }
    return Fail(QUORVEL_ERROR_DAMAGED);
}

// Throws FileIOException unless the file exists and can be written.
void RequireFile(const char* path) {
    std::FILE* const file = std::fopen(path, "rb+");
    if (!file) { throw Quorvel::FileIOException(static_cast<std::uint32_t>(errno)); }
    std::fclose(file);
}

quorvel_status Make(const char* fileName, std::uint64_t cachePages, std::uint64_t streamLimit,
                    quorvel_package** package, bool isNew) {
    if (package) { *package = nullptr; }
    return Run([&] {
        Require(package, "the place for the package must not be null");
        Require(fileName, "the file name must not be null");
        const Quorvel::PagedFilePackageConfig config = {fileName, cachePages, streamLimit};
        // OpenFilePackage would create a missing file.
        if (!isNew) { RequireFile(fileName); }
        const Util::RefPtr<IDataStreamSet> set =
            isNew ? Quorvel::CreateFilePackage(config) : Quorvel::OpenFilePackage(config);
        if (!set && isNew) { throw Quorvel::FileIOException(static_cast<std::uint32_t>(errno)); }
        if (!set) { return FailToLoad(); }
        *package = new quorvel_package{set, new OpenHandles};
        return QUORVEL_OK;
    });
}

}  // namespace

quorvel_status quorvel_package_create(const char* file_name, uint64_t cache_pages,
                                      uint64_t stream_limit, quorvel_package** package) {
    return Make(file_name, cache_pages, stream_limit, package, true);
}

quorvel_status quorvel_package_open(const char* file_name, uint64_t cache_pages,
                                    uint64_t stream_limit, quorvel_package** package) {
    return Make(file_name, cache_pages, stream_limit, package, false);
}

void quorvel_package_close(quorvel_package* package) {
    delete package;
}

quorvel_status quorvel_package_commit(quorvel_package* package) {
    return Run([&] {
        RequirePackage(package);
        package->set->Commit();
        return QUORVEL_OK;
    });
}

quorvel_status quorvel_package_load(quorvel_package* package) {
    return Run([&] {
        RequirePackage(package);
        if (package->handles->count > 0) { return Fail(QUORVEL_ERROR_BUSY); }
        return package->set->Load() ? QUORVEL_OK : FailToLoad();
    });
}

uint64_t quorvel_package_header_size(const quorvel_package* package) {
    return package ? package->set->GetHeaderDataSize() : 0;
}

quorvel_status quorvel_package_read_header(const quorvel_package* package, void* buffer,
                                           size_t capacity, size_t* size) {
    if (size) { *size = 0; }
    return Run([&] {
        RequirePackage(package);
        Require(size, "the place for the size must not be null");
        Require(buffer || capacity == 0, "the buffer must not be null");
        IDataStreamSet& set = *package->set;
        return CopyOut(static_cast<const IDataStreamSet&>(set).GetHeaderData(),
                       static_cast<std::size_t>(set.GetHeaderDataSize()), buffer, capacity, size);
    });
}

quorvel_status quorvel_package_write_header(quorvel_package* package, const void* data,
                                            size_t size) {
    return Run([&] {
        RequirePackage(package);
        Require(data || size == 0, "the data must not be null");
        package->set->SetHeaderDataSize(size);
        if (size > 0) { std::memcpy(package->set->GetHeaderData(), data, size); }
        return QUORVEL_OK;
    });
}

uint64_t quorvel_package_stream_count(const quorvel_package* package) {
    return package ? package->set->GetNumberOfDataStreams() : 0;
}

uint64_t quorvel_package_total_size(const quorvel_package* package) {
    return package ? package->set->GetTotalDataSize() : 0;
}

uint64_t quorvel_package_stream_id(const quorvel_package* package, uint64_t index) {
    return package ? package->set->GetDataStreamId(index) : QUORVEL_NO_STREAM;
}

quorvel_status quorvel_package_create_stream(quorvel_package* package, uint64_t size,
                                             uint64_t* id) {
    if (id) { *id = QUORVEL_NO_STREAM; }
    return Run([&] {
        RequirePackage(package);
        Require(id, "the place for the id must not be null");
        Require(size <= QUORVEL_LARGEST_STREAM, "a stream has at most 2147483647 bytes");
        *id = package->set->CreateDataStream(size);
        return *id == QUORVEL_NO_STREAM ? Fail(QUORVEL_ERROR_LIMIT) : QUORVEL_OK;
    });
}

quorvel_status quorvel_package_delete_stream(quorvel_package* package, uint64_t id) {
    return Run([&] {
        RequirePackage(package);
        const std::uint64_t before = package->set->GetNumberOfDataStreams();
        const bool isGone = package->set->DeleteDataStream(id);
        if (package->set->GetNumberOfDataStreams() == before) {
            return Fail(isGone ? QUORVEL_ERROR_NOT_FOUND : QUORVEL_ERROR_BUSY);
        }
        return isGone ? QUORVEL_OK : Fail(QUORVEL_ERROR_DAMAGED, "some space was not freed");
    });
}

quorvel_status quorvel_stream_open(quorvel_package* package, uint64_t id, quorvel_stream** stream) {
    if (stream) { *stream = nullptr; }
    return Run([&] {
        RequirePackage(package);
        Require(stream, "the place for the stream must not be null");
        const Util::RefPtr<IDataStream> opened = package->set->OpenDataStream(id);
        if (!opened) { return Fail(QUORVEL_ERROR_NOT_FOUND); }
        *stream = new quorvel_stream{opened, package->handles};
        ++package->handles->count;
        return QUORVEL_OK;
    });
}

void quorvel_stream_close(quorvel_stream* stream) {
    if (!stream) { return; }
    --stream->handles->count;
    delete stream;
}

uint64_t quorvel_stream_size(const quorvel_stream* stream) {
    return stream ? stream->stream->GetSize() : 0;
}

uint64_t quorvel_stream_position(const quorvel_stream* stream) {
    return stream ? stream->stream->GetPosition() : 0;
}

quorvel_status quorvel_stream_seek(quorvel_stream* stream, int64_t offset, quorvel_origin origin) {
    return Run([&] {
        RequireStream(stream);
        Require(origin == QUORVEL_FROM_START || origin == QUORVEL_FROM_CURRENT ||
                    origin == QUORVEL_FROM_END,
                "the origin is unknown");
        using Offset = std::numeric_limits<std::int32_t>;
        const bool isInStream = offset >= Offset::min() && offset <= Offset::max() &&
                                stream->stream->Seek(static_cast<std::uint32_t>(origin),
                                                     static_cast<std::int32_t>(offset));
        Require(isInStream, "the position is outside the stream");
        return QUORVEL_OK;
    });
}

quorvel_status quorvel_stream_read(quorvel_stream* stream, void* buffer, size_t size,
                                   size_t* moved) {
    if (moved) { *moved = 0; }
    return Run([&] {
        RequireStream(stream);
        Require(moved, "the place for the number of bytes must not be null");
        Require(buffer || size == 0, "the buffer must not be null");
        *moved = static_cast<std::size_t>(stream->stream->Read(buffer, size));
        return QUORVEL_OK;
    });
}

quorvel_status quorvel_stream_write(quorvel_stream* stream, const void* data, size_t size,
                                    size_t* moved) {
    if (moved) { *moved = 0; }
    return Run([&] {
        RequireStream(stream);
        Require(moved, "the place for the number of bytes must not be null");
        Require(data || size == 0, "the data must not be null");
        *moved = static_cast<std::size_t>(stream->stream->Write(data, size));
        return QUORVEL_OK;
    });
}
