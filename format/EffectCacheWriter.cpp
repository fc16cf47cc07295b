#include "format/EffectCacheWriter.h"

#include <algorithm>
#include <numeric>
#include <random>

namespace Quorvel::Format {
namespace {

void AppendBlockHead(Bytes& bytes, std::uint32_t tag, std::uint32_t payloadSize) {
    AppendInteger(bytes, 4, tag);
    AppendInteger(bytes, 4, payloadSize);
    AppendInteger(bytes, 4, 0);
}

Bytes EncodeOtherBlock(std::uint32_t tag, const std::string& payload) {
    Bytes block;
    AppendBlockHead(block, tag, static_cast<std::uint32_t>(payload.size()));
    Append(block, payload);
    return block;
}

}  // namespace

PackageImage LayOutEffectCache(std::vector<NewEffect> effects, const EffectCacheLayout& layout) {
    std::mt19937 random(layout.package.seed);
    std::sort(effects.begin(), effects.end(),
              [](const NewEffect& a, const NewEffect& b) { return NameOrder()(a.name, b.name); });
    if (layout.shuffleIndex) { std::shuffle(effects.begin(), effects.end(), random); }
    std::vector<std::uint64_t> ids(effects.size() + 1);
    std::iota(ids.begin(), ids.end(), 0);
    if (layout.shuffleStreams) {
        ids.resize(2 * ids.size());
        std::iota(ids.begin(), ids.end(), 0);
        std::shuffle(ids.begin(), ids.end(), random);
    }

    std::map<std::uint64_t, Bytes> streams;
    std::vector<IndexEntry> entries;
    for (std::size_t i = 0; i < effects.size(); ++i) {
        const NewEffect& effect = effects[i];
        EffectRecord record;
        record.streamId = ids[i + 1];
        record.nameLength = static_cast<std::uint32_t>(effect.name.size());
        record.size = static_cast<std::uint32_t>(effect.data.size());
        record.permanent = effect.permanent ? 1 : 0;
        record.time = effect.time;
        streams[record.streamId] = EncodeEffect(effect.data);
        entries.push_back({effect.name, record});
    }
    streams[ids[0]] = entries.empty() ? Bytes(1) : EncodeIndex(entries);

    CacheHeader header;
    header.effectCount = entries.size();
    header.indexStream = ids[0];
    Bytes headerData;
    if (layout.moreBlocks) {
        Append(headerData, EncodeOtherBlock(1, ""));
        Append(headerData, EncodeOtherBlock(77, "of another program"));
    }
    Append(headerData, EncodeHeaderBlock(header, layout.headerPayload));
    if (layout.moreBlocks) { Append(headerData, EncodeOtherBlock(78, "too")); }
    return LayOutPackage(streams, headerData, layout.package);
}

Bytes WriteEffectCache(const std::vector<NewEffect>& effects, const EffectCacheLayout& layout) {
    return EncodePackage(LayOutEffectCache(effects, layout));
}

Bytes EncodeHeaderBlock(const CacheHeader& header, std::uint32_t payloadSize) {
    Bytes block;
    AppendBlockHead(block, kCacheHeaderTag, payloadSize);
    AppendInteger(block, 4, header.version);
    AppendInteger(block, 8, header.effectCount);
    AppendInteger(block, 8, header.indexStream);
    AppendInteger(block, 8, header.reserved);
    block.resize(kCacheBlockHeadSize + payloadSize);
    return block;
}

Bytes EncodeIndex(const std::vector<IndexEntry>& entries) {
    Bytes index;
    for (const IndexEntry& entry : entries) {
        const EffectRecord& record = entry.record;
        AppendInteger(index, 8, record.streamId);
        AppendInteger(index, 4, record.nameLength);
        AppendInteger(index, 4, record.size);
        AppendInteger(index, 4, record.permanent);
        for (const std::uint16_t field :
             {record.time.year, record.time.month, record.time.day, record.time.hour,
              record.time.minute, record.time.second}) {
            AppendInteger(index, 2, field);
        }
        AppendInteger(index, 4, record.time.millisecond);
        AppendInteger(index, 8, record.reserved);
        AppendInteger(index, 8, entry.name.size());
        Append(index, entry.name);
    }
    return index;
}

Bytes EncodeEffect(const Bytes& data) {
    Bytes stream;
    AppendInteger(stream, kLengthPrefixSize, data.size());
    Append(stream, data);
    return stream;
}

}  // namespace Quorvel::Format
