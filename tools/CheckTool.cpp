#include <CLI/CLI.hpp>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "format/EffectCacheImage.h"
#include "format/PackageCheck.h"
#include "platform/Directory.h"
#include "tools/Tools.h"

namespace Quorvel::Tools {
namespace {

using namespace Quorvel::Format;

std::string Count(std::uint64_t number, const std::string& what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string Summary(const PackageImage& image) {
    std::uint64_t bytes = 0;
    for (const StreamRecord& stream : image.streams) {
        bytes += stream.size;
    }
    std::uint64_t freePages = 0;
    for (const std::uint64_t link : image.links) {
        freePages += link == kFreePage ? 1 : 0;
    }
    return Count(image.streams.size(), "stream") + " of " + Count(bytes, "byte") + ", " +
           Count(image.links.size(), "page") + " (" + std::to_string(freePages) + " free), " +
           Count(image.blocks.size(), "tail block");
}

// True if a cache of this user would not use the file, whatever it holds.
bool IsOfAnotherUser(const std::string& path) {
    const std::filesystem::path file(path);
    const std::string directory = file.has_parent_path() ? file.parent_path().string() : ".";
    const Platform::Directory found =
        Platform::FindDirectory(directory.c_str(), file.filename().string().c_str());
    return found.access == Platform::Directory::Access::BelongsToAnotherUser;
}

int Check(const std::string& path, std::ostream& out) {
    std::string summary;
    std::vector<std::string> problems;
    try {
        const PackageImage image = ReadPackage(ReadWholeFile(path));
        const bool isCache = HoldsEffectCache(image.headerData);
        summary = (isCache ? "effect cache, " : "package, ") + Summary(image);
        problems = isCache ? CheckEffectCache(image) : CheckPackage(image);
    } catch (const FormatError& error) {
        summary = "no intact package";
        problems = {error.what()};
    }
    out << path << ": " << summary << ", " << Count(problems.size(), "problem") << '\n';
    for (const std::string& problem : problems) {
        out << problem << '\n';
    }
    if (IsOfAnotherUser(path)) {
        out << "note: a cache of this user does not use the file, because the file or its "
               "directory "
               "belongs to another user\n";
    }
    return problems.empty() ? kDone : kDamaged;
}

}  // namespace

int CheckTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
    CLI::App app("Checks a package file and the effect cache in it, if it has one.",
                 "quorvel-check");
    app.allow_windows_style_options(false);
    app.footer("Exit code: 0 sound, 1 damaged, 2 could not be checked.");
    std::string path;
    app.add_option("FILE", path, "the package file")->required();
    try {
        app.parse(argc, argv);
        const int result = Check(path, out);
        return out.flush() ? result : kFailed;
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, err) == 0 ? kDone : kFailed;
    } catch (const std::exception& error) {
        err << "quorvel-check: " << error.what() << '\n';
        return kFailed;
    }
}

}  // namespace Quorvel::Tools
