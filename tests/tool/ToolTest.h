#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "format/EffectCacheWriter.h"
#include "format/PackageWriter.h"
#include "support/TemporaryDirectory.h"
#include "tools/quorvel/Program.h"
#include "tools/quorvel/Session.h"

namespace Quorvel::Tool {

// Runs the program, on a cache directory of its own.
class ToolTest : public testing::Test {
protected:
    // The exit code. The output is then in out_ and err_.
    int Run(const std::vector<std::string>& arguments, const std::string& input = "") {
        std::vector<const char*> argv = {"quorvel"};
        for (const std::string& argument : arguments) {
            argv.push_back(argument.c_str());
        }
        std::istringstream in(input);
        std::ostringstream out;
        std::ostringstream err;
        const int result = RunProgram(static_cast<int>(argv.size()), argv.data(), {in, out, err});
        out_ = out.str();
        err_ = err.str();
        return result;
    }

    // Runs a command that must print one JSON value.
    Json RunJson(std::vector<std::string> arguments, int exitCode = kDone) {
        arguments.push_back("--json");
        EXPECT_EQ(Run(arguments), exitCode) << err_;
        return Json::parse(out_);
    }

    std::string File(const std::string& name) const { return directory_.File(name); }

    // The cache's file, and its content.
    std::string CacheFile() const { return File("vornFxoCache.dat"); }
    Format::Bytes FileBytes() const { return Format::ReadWholeFile(CacheFile()); }

    // Replaces the cache with one that has these effects.
    void MakeCache(const std::vector<Format::NewEffect>& effects) const {
        Format::WriteWholeFile(CacheFile(), Format::WriteEffectCache(effects));
    }

    // Makes a directory with a cache of these effects. Returns its path.
    std::string MakeIn(const std::string& name,
                       const std::vector<Format::NewEffect>& effects) const {
        std::filesystem::create_directory(File(name));
        Format::WriteWholeFile(File(name) + "/vornFxoCache.dat", Format::WriteEffectCache(effects));
        return File(name);
    }

    // "name year flag bytes" for each effect of an intact cache.
    static std::vector<std::string> EffectsIn(const std::string& directory) {
        const Format::Bytes file = Format::ReadWholeFile(directory + "/vornFxoCache.dat");
        EXPECT_THAT(Format::CheckEffectCache(file), testing::IsEmpty());
        std::vector<std::string> effects;
        for (const auto& [name, effect] :
             Format::ReadEffectCache(Format::ReadPackage(file, Format::kCacheStreamLimit))) {
            effects.push_back(name + ' ' + std::to_string(effect.record.time.year) + ' ' +
                              std::to_string(effect.record.permanent) + ' ' +
                              std::string(effect.data.begin(), effect.data.end()));
        }
        return effects;
    }

    static Format::EntryTime Year(unsigned year) {
        return {static_cast<std::uint16_t>(year), 1, 1, 0, 0, 0, 0};
    }

    // Two caches with effects of the same names. "3" was used at the same time in both.
    static std::vector<Format::NewEffect> EffectsOfA() {
        return {{"1", {'a'}, true, Year(2001)},
                {"2", {'a'}, false, Year(2003)},
                {"3", {'a'}, true, Year(2002)},
                {"4", {'a'}, false, Year(2002)}};
    }
    static std::vector<Format::NewEffect> EffectsOfB() {
        return {{"1", {'b'}, false, Year(2002)},
                {"2", {'b'}, true, Year(2002)},
                {"3", {'b'}, false, Year(2002)},
                {"5", {'b'}, true, Year(2002)}};
    }

    // Replaces the cache with ThreeEffects, of which "a" can't be read: its stream has another size
    // than its record says.
    void MakeCacheWithDamagedEffect() const {
        Format::PackageImage image = Format::LayOutEffectCache(ThreeEffects(), {});
        const Format::StreamReader streams(image);
        const Format::EffectRecord record =
            Format::ReadIndex(streams, Format::ReadCacheHeader(image.headerData))[0].record;
        for (Format::StreamRecord& stream : image.streams) {
            stream.size += stream.id == record.streamId ? 1 : 0;
        }
        Format::WriteWholeFile(CacheFile(), Format::EncodePackage(image));
    }

    // "a" (1 byte), "bb" (permanent, 2 bytes) and a name with odd bytes (10,000 bytes), used in
    // this order.
    static std::vector<Format::NewEffect> ThreeEffects() {
        return {{"a", {1}, false, {2001, 2, 3, 4, 5, 6, 7}},
                {"bb", {2, 2}, true, {2002, 2, 3, 4, 5, 6, 7}},
                {"tab\there\\\xFF", Format::Bytes(10000, 3), false, {2003, 2, 3, 4, 5, 6, 7}}};
    }

    const Testing::TemporaryDirectory directory_;
    const std::string cache_ = directory_.Path().string();
    std::string out_;
    std::string err_;
};

}  // namespace Quorvel::Tool
