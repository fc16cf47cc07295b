// quorvel-exchange write|check FOLDER: lets two builds of the library exchange a package and an
// effect cache. write creates both in the folder with a fixed sequence of operations; check opens
// them and compares them with the sequence's expected result.
#include <quorvel/Quorvel.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Quorvel;
using Bytes = std::vector<std::uint8_t>;

constexpr int kOperations = 600;
constexpr std::uint64_t kMostStreams = 60;
constexpr std::uint64_t kPageCacheCapacity = 16;

void Require(bool holds, const char* what) {
    if (!holds) { throw std::runtime_error(what); }
}

// Returns the same numbers on every platform.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t Below(std::uint64_t limit) {
        state_ = state_ * 6364136223846793005U + 1442695040888963407U;
        return (state_ >> 33) % limit;
    }

private:
    std::uint64_t state_;
};

Bytes RandomBytes(std::uint64_t seed, std::uint64_t size) {
    Random random(seed);
    Bytes bytes(static_cast<std::size_t>(size));
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random.Below(256));
    }
    return bytes;
}

// The content of a package, and the operations on it, without a file.
class Model {
public:
    virtual ~Model() = default;

    virtual void Create(const Bytes& content) {
        std::uint64_t id = 0;
        while (streams.count(id) != 0) {
            ++id;
        }
        streams[id] = content;
        created = id;
    }
    virtual void Rewrite(std::uint64_t id, const Bytes& content) { streams[id] = content; }
    virtual void Delete(std::uint64_t id) { streams.erase(id); }
    virtual void SetHeaderData(const Bytes& content) { headerData = content; }
    virtual void Commit() {}
    virtual void Reopen() {}

    std::map<std::uint64_t, Bytes> streams;
    Bytes headerData;
    std::uint64_t created = kInvalidStreamId;
};

// The same operations on a package in a file.
class Package : public Model {
public:
    explicit Package(const std::string& path) : path_(path), package_(CreateFilePackage(Config())) {
        Require(static_cast<bool>(package_), "the package can't be created");
    }

    void Create(const Bytes& content) override {
        Model::Create(content);
        const std::uint64_t id = package_->CreateDataStream(content.size());
        Require(id == created, "a stream has the wrong id");
        Write(id, content);
    }
    void Rewrite(std::uint64_t id, const Bytes& content) override {
        Model::Rewrite(id, content);
        Write(id, content);
    }
    void Delete(std::uint64_t id) override {
        Model::Delete(id);
        Require(package_->DeleteDataStream(id), "a stream can't be deleted");
    }
    void SetHeaderData(const Bytes& content) override {
        Model::SetHeaderData(content);
        package_->SetHeaderDataSize(content.size());
        std::copy(content.begin(), content.end(), package_->GetHeaderData());
    }
    void Commit() override { Require(package_->Commit(), "a commit failed"); }
    void Reopen() override {
        package_.Reset();
        package_ = OpenFilePackage(Config());
        Require(static_cast<bool>(package_), "the package can't be opened again");
    }

private:
    PagedFilePackageConfig Config() const {
        return {path_.c_str(), kPageCacheCapacity, kMostStreams};
    }

    void Write(std::uint64_t id, const Bytes& content) {
        if (!content.empty()) {
            Require(package_->OpenDataStream(id)->Write(content.data(), content.size()) ==
                        content.size(),
                    "a stream takes fewer bytes than its size");
        }
    }

    std::string path_;
    Util::RefPtr<IDataStreamSet> package_;
};

std::uint64_t RandomSize(Random& random) {
    switch (random.Below(6)) {
        case 0:
            return 0;
        case 1:
            return random.Below(5) * 8192;
        case 2:
            return random.Below(70000);
        default:
            return random.Below(8192);
    }
}

void RunOperations(Model& package) {
    Random random(20260);
    for (std::uint64_t step = 1; step <= kOperations; ++step) {
        auto stream = package.streams.begin();
        std::advance(stream, random.Below(package.streams.size() + 1));
        const bool exists = stream != package.streams.end();
        switch (random.Below(10)) {
            case 0:
                package.Commit();
                break;
            case 1:
                package.Reopen();
                break;
            case 2:
                package.SetHeaderData(RandomBytes(step, 1 + random.Below(20000)));
                break;
            case 3:
            case 4:
            case 5:
                if (exists) { package.Delete(stream->first); }
                break;
            case 6:
                if (exists) {
                    package.Rewrite(stream->first, RandomBytes(step, stream->second.size()));
                }
                break;
            default:
                if (package.streams.size() < kMostStreams) {
                    package.Create(RandomBytes(step, RandomSize(random)));
                }
        }
    }
}

void CheckPackage(const std::string& path) {
    Model expected;
    RunOperations(expected);
    Require(expected.streams.size() > 10, "the operations leave too few streams");
    const auto package = OpenFilePackage({path.c_str(), kPageCacheCapacity, kMostStreams});
    Require(static_cast<bool>(package), "the package can't be opened");
    Require(package->GetNumberOfDataStreams() == expected.streams.size(),
            "the package has the wrong number of streams");
    const IDataStreamSet& constant = *package;
    Require(package->GetHeaderDataSize() == expected.headerData.size() &&
                std::equal(expected.headerData.begin(), expected.headerData.end(),
                           constant.GetHeaderData()),
            "the package has the wrong header data");
    std::uint64_t index = 0;
    for (const auto& [id, content] : expected.streams) {
        Require(package->GetDataStreamId(index++) == id, "a stream is missing");
        if (content.empty()) { continue; }
        const auto stream = package->OpenDataStream(id);
        Require(stream && stream->GetSize() == content.size(), "a stream has the wrong size");
        Bytes found(content.size());
        Require(stream->Read(found.data(), found.size()) == found.size() && found == content,
                "a stream has the wrong bytes");
    }
}

constexpr int kEffects = 40;

std::string EffectName(int number) {
    return "effect" + std::string(static_cast<std::size_t>(number % 7), '#') +
           static_cast<char>('a' + number % 26) + static_cast<char>('A' + number / 26);
}

Bytes EffectBytes(int number) {
    return RandomBytes(static_cast<std::uint64_t>(number) + 1,
                       static_cast<std::uint64_t>(number * number * 20 + 1));
}

Util::RefPtr<EffectCacheSystem> OpenCache(const std::string& folder) {
    Util::RefPtr<EffectCacheSystem> cache(
        new EffectCacheSystem(CStr(folder.data(), folder.size())));
    Require(cache->IsEnabled(), "the cache can't be used");
    return cache;
}

void WriteCache(const std::string& folder) {
    const auto cache = OpenCache(folder);
    for (int number = 0; number < kEffects; ++number) {
        const Bytes bytes = EffectBytes(number);
        cache->CacheCompiledEffect(CStr(EffectName(number).c_str()), bytes.data(), bytes.size(),
                                   number % 3 == 0);
        if (number == kEffects / 2) { cache->ForceSaveToFile(); }
    }
}

void CheckCache(const std::string& folder) {
    const auto cache = OpenCache(folder);
    Require(cache->GetNumberOfEffectsInFile() == kEffects,
            "the cache has the wrong number of effects");
    for (int number = 0; number < kEffects; ++number) {
        const Bytes bytes = EffectBytes(number);
        Tab<unsigned char> found;
        Require(cache->SearchCachedEffects(CStr(EffectName(number).c_str()), found),
                "an effect is missing");
        Require(static_cast<std::size_t>(found.Count()) == bytes.size() &&
                    std::memcmp(found.Addr(0), bytes.data(), bytes.size()) == 0,
                "an effect has the wrong bytes");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: quorvel-exchange write|check FOLDER\n", stderr);
        return 2;
    }
    const std::string folder = argv[2];
    const std::string path = folder + "/exchange.package";
    try {
        if (std::strcmp(argv[1], "write") == 0) {
            {
                Package package(path);
                RunOperations(package);
            }
            WriteCache(folder);
        } else {
            CheckPackage(path);
            CheckCache(folder);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quorvel-exchange: %s\n", error.what());
        return 1;
    }
    return 0;
}
