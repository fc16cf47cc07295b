#include "effectcache/StoredCache.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "package/PagedFilePackage.h"

namespace Quorvel::Testing {

ByteList& ByteList::Text(const std::string& text) {
    bytes_.insert(bytes_.end(), text.begin(), text.end());
    return *this;
}

ByteList& ByteList::Append(const Bytes& bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
}

ByteList& ByteList::Number(std::uint64_t value, int size) {
    for (; size > 0; --size, value >>= 8) {
        bytes_.push_back(static_cast<unsigned char>(value & 0xFF));
    }
    return *this;
}

std::uint64_t NumberAt(const Bytes& bytes, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t index = size; index-- > 0;) {
        value = value << 8 | bytes.at(offset + index);
    }
    return value;
}

Bytes Block(std::uint32_t tag, const Bytes& payload) {
    return ByteList()
        .U32(tag)
        .U32(static_cast<std::uint32_t>(payload.size()))
        .U32(0)
        .Append(payload);
}

Bytes Header(std::uint64_t recordCount, std::uint64_t indexStream, std::uint32_t version) {
    return ByteList().U32(version).U64(recordCount).U64(indexStream).U64(0);
}

Bytes ByteArray(const Bytes& bytes) {
    return ByteList().U64(bytes.size()).Append(bytes);
}

Bytes ByteArray(const std::string& text) {
    return ByteList().U64(text.size()).Text(text);
}

Bytes Record::Get() const {
    return ByteList()
        .U64(streamId)
        .U32(nameLength)
        .U32(effectSize)
        .U32(permanent)
        .U16(time.year)
        .U16(time.month)
        .U16(time.day)
        .U16(time.hour)
        .U16(time.minute)
        .U16(time.second)
        .U32(time.milliseconds)
        .U64(reserved);
}

PagedFilePackageConfig CacheConfig(const std::string& path) {
    return {path.c_str(), 64, 65535};
}

void WritePackage(const std::string& path, const Bytes& headerData,
                  const std::vector<Bytes>& streams) {
    const Util::RefPtr<IDataStreamSet> package = CreateFilePackage(CacheConfig(path));
    ASSERT_TRUE(package);
    for (std::size_t index = 0; index < streams.size(); ++index) {
        ASSERT_EQ(package->CreateDataStream(streams[index].size()), index);
        if (!streams[index].empty()) {
            const Util::RefPtr<IDataStream> stream = package->OpenDataStream(index);
            ASSERT_EQ(stream->Write(streams[index].data(), streams[index].size()),
                      streams[index].size());
        }
    }
    package->SetHeaderDataSize(headerData.size());
    std::copy(headerData.begin(), headerData.end(), package->GetHeaderData());
    ASSERT_TRUE(package->Commit());
}

void WriteCache(const std::string& path, const std::vector<StoredEffect>& effects) {
    std::vector<Bytes> streams(1);
    ByteList index;
    for (const StoredEffect& effect : effects) {
        const Record record = {streams.size(),
                               static_cast<std::uint32_t>(effect.name.size()),
                               static_cast<std::uint32_t>(effect.bytes.size()),
                               effect.permanent,
                               effect.time,
                               0};
        index.Append(record.Get()).Append(ByteArray(effect.name));
        streams.push_back(ByteArray(effect.bytes));
    }
    streams[0] = index;
    WritePackage(path, Block(kTagOfCache, Header(effects.size(), 0)), streams);
}

void LeaveUnfinishedSave(const std::string& path) {
    const Util::RefPtr<PagedFilePackage> package(new PagedFilePackage(CacheConfig(path)));
    ASSERT_TRUE(package->Load());
    package->BeginSave();
    ASSERT_TRUE(package->DeleteDataStream(1));
    const std::uint64_t id = package->CreateDataStream(100 * 8192);
    const Bytes bytes(100 * 8192);  // more than the page cache holds
    ASSERT_EQ(package->OpenDataStream(id)->Write(bytes.data(), bytes.size()), bytes.size());
    ASSERT_EQ(package->State(), FileState::Overwriting);
    const Bytes file = ReadWholeFile(path);
    const Bytes journal = ReadWholeFile(path + "-journal");
    package->Rollback();
    WriteWholeFile(path, file);
    WriteWholeFile(path + "-journal", journal);
}

StoredCache::StoredCache(const std::string& path) {
    const Util::RefPtr<IDataStreamSet> package = OpenFilePackage(CacheConfig(path));
    if (!package) {
        ADD_FAILURE() << path << " is not a package";
        return;
    }
    const IDataStreamSet& constant = *package;
    headerData_.assign(constant.GetHeaderData(),
                       constant.GetHeaderData() + package->GetHeaderDataSize());
    totalDataSize_ = package->GetTotalDataSize();
    for (std::uint64_t index = 0; index < package->GetNumberOfDataStreams(); ++index) {
        streamIds_.push_back(package->GetDataStreamId(index));
        const Util::RefPtr<IDataStream> stream = package->OpenDataStream(streamIds_.back());
        Bytes bytes(stream->GetSize());
        EXPECT_EQ(stream->Read(bytes.data(), bytes.size()), bytes.size());
        streams_.push_back(std::move(bytes));
    }
}

StoredCache::StoredCache(const TemporaryDirectory& directory)
    : StoredCache(CacheFilePath(directory)) {}

Bytes StoredCache::Stream(std::uint64_t id) const {
    const auto found = std::find(streamIds_.begin(), streamIds_.end(), id);
    return found != streamIds_.end()
               ? streams_[static_cast<std::size_t>(found - streamIds_.begin())]
               : Bytes();
}

std::vector<std::string> StoredCache::Names() const {
    std::vector<std::string> names;
    for (const IndexEntry& entry : Entries()) {
        names.push_back(entry.name);
    }
    return names;
}

Bytes StoredCache::RecordOf(const std::string& name) const {
    for (const IndexEntry& entry : Entries()) {
        if (entry.name == name) { return entry.record; }
    }
    return {};
}

std::vector<StoredCache::IndexEntry> StoredCache::Entries() const {
    const Bytes index = Index();
    std::vector<IndexEntry> entries;
    auto next = index.begin();
    for (std::uint64_t left = RecordCount(); left > 0; --left) {
        const auto offset = static_cast<std::size_t>(next - index.begin());
        const auto length = static_cast<std::ptrdiff_t>(NumberAt(index, offset + 44, 8));
        entries.push_back({std::string(next + 52, next + 52 + length), Bytes(next, next + 44)});
        next += 52 + length;
    }
    return entries;
}

}  // namespace Quorvel::Testing
