#include "effectcache/StoredEffect.h"

#include "effectcache/StreamHelpers.h"
#include "quorvel/Exceptions.h"
#include "quorvel/IDataStream.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

bool ReadEffect(PagedFilePackage& package, const EffectRecord& record, Tab<unsigned char>& data) {
    Util::RefPtr<IDataStream> stream = package.OpenDataStream(record.streamId);
    if (!ReadBytes(data, stream, kLargestEffect)) { return false; }
    const auto count = static_cast<std::uint64_t>(data.Count());
    return count == record.effectSize && stream->GetSize() == SerializedSize(count);
}

void StoreEffect(PagedFilePackage& package, EffectIndex& index, const EffectKey& name,
                 std::uint32_t hash, std::span<const unsigned char> bytes, std::uint32_t permanent,
                 const EntryTime& time) {
    if (IndexEntry* const replaced = index.Find(name, hash)) {
        DeleteEffect(package, index, replaced);
    }
    const std::uint64_t id = package.CreateDataStream(SerializedSize(bytes.size()));
    Util::RefPtr<IDataStream> stream = package.OpenDataStream(id);
    if (!WriteBytes(bytes, stream)) { throw FileIOException(); }
    const EffectRecord record = {id,
                                 static_cast<std::uint32_t>(name.length),
                                 static_cast<std::uint32_t>(bytes.size()),
                                 permanent,
                                 time,
                                 0};
    index.Put(name, hash, record);
}

void DeleteEffect(PagedFilePackage& package, EffectIndex& index, IndexEntry* entry) {
    package.DeleteDataStream(entry->record.streamId);
    index.Remove(entry);
}

}  // namespace Quorvel
