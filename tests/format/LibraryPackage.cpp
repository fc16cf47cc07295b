#include "format/LibraryPackage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "format/PackageCheck.h"
#include "format/TestData.h"

namespace Quorvel::Format {

Util::RefPtr<IDataStreamSet> CreatePackage(const std::string& path, LibrarySettings settings) {
    return CreateFilePackage({path.c_str(), settings.pageCacheCapacity, settings.streamLimit});
}

Util::RefPtr<IDataStreamSet> OpenPackage(const std::string& path, LibrarySettings settings) {
    return OpenFilePackage({path.c_str(), settings.pageCacheCapacity, settings.streamLimit});
}

std::uint64_t AddStream(IDataStreamSet& package, const Bytes& content) {
    const std::uint64_t id = package.CreateDataStream(content.size());
    if (!content.empty()) {
        EXPECT_EQ(package.OpenDataStream(id)->Write(content.data(), content.size()),
                  content.size());
    }
    return id;
}

Bytes ReadStream(IDataStreamSet& package, std::uint64_t id) {
    const Util::RefPtr<IDataStream> stream = package.OpenDataStream(id);
    if (!stream) { throw std::runtime_error("the stream does not open"); }
    Bytes content(static_cast<std::size_t>(stream->GetSize()));
    if (!stream->Seek(kSeekFromStart, 0) ||
        stream->Read(content.data(), content.size()) != content.size()) {
        throw std::runtime_error("the stream ends early");
    }
    return content;
}

void SetHeaderData(IDataStreamSet& package, const Bytes& headerData) {
    package.SetHeaderDataSize(headerData.size());
    if (!headerData.empty()) {
        std::copy(headerData.begin(), headerData.end(), package.GetHeaderData());
    }
}

Bytes GetHeaderData(IDataStreamSet& package) {
    const std::uint8_t* const data = static_cast<const IDataStreamSet&>(package).GetHeaderData();
    return data ? Bytes(data, data + package.GetHeaderDataSize()) : Bytes();
}

void ExpectStreams(IDataStreamSet& package, const std::map<std::uint64_t, Bytes>& streams) {
    ASSERT_EQ(package.GetNumberOfDataStreams(), streams.size());
    std::uint64_t index = 0;
    std::uint64_t total = 0;
    for (const auto& [id, content] : streams) {
        EXPECT_EQ(package.GetDataStreamId(index++), id);
        total += content.size();
        if (content.empty()) {
            EXPECT_THROW(package.OpenDataStream(id), FileDataCorruptException) << "stream " << id;
        } else {
            EXPECT_TRUE(ReadStream(package, id) == content) << "stream " << id;
        }
    }
    EXPECT_EQ(package.GetTotalDataSize(), total);
}

void ExpectFile(const std::string& path, const std::map<std::uint64_t, Bytes>& streams,
                const Bytes& headerData) {
    const Bytes file = ReadWholeFile(path);
    ASSERT_EQ(Joined(CheckPackage(file)), "");
    const PackageImage image = ReadPackage(file);
    EXPECT_TRUE(std::ranges::is_sorted(image.streams, {}, &StreamRecord::id));
    EXPECT_TRUE(std::ranges::is_sorted(image.blocks, {}, &TailBlock::id));
    EXPECT_TRUE(std::ranges::is_sorted(image.fragments, {}, &Fragment::streamId));
    EXPECT_TRUE(ReadAllStreams(image) == streams);
    EXPECT_TRUE(image.headerData == headerData);
}

}  // namespace Quorvel::Format
