#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <ostream>
#include <string>

#include "format/EffectCacheImage.h"
#include "tools/Tools.h"

namespace Quorvel::Tools {
namespace {

using namespace Quorvel::Format;

// A name without tabs and line breaks: control characters become \xNN, a backslash becomes two.
std::string Printable(const std::string& name) {
    std::string text;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            text += "\\\\";
        } else if (byte >= 0x20 && byte != 0x7F) {
            text += c;
        } else {
            char escape[5];
            std::snprintf(escape, sizeof escape, "\\x%02X", byte);
            text += escape;
        }
    }
    return text;
}

std::string Printable(const EntryTime& time) {
    char text[64];
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%03u", time.year, time.month,
                  time.day, time.hour, time.minute, time.second, time.millisecond);
    return text;
}

// Prints the records of the index in order, whether or not their data can be read.
void List(const std::string& path, std::ostream& out) {
    const PackageImage image = ReadPackage(ReadWholeFile(path));
    const CacheHeader header = ReadCacheHeader(image.headerData);
    const Bytes index = StreamReader(image).Read(header.indexStream);
    for (const IndexEntry& entry : ReadIndex(index, header.effectCount)) {
        out << Printable(entry.name) << '\t' << entry.record.size << '\t' << entry.record.permanent
            << '\t' << Printable(entry.record.time) << '\n';
    }
}

}  // namespace

int ListTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
    CLI::App app(
        "Lists the effects of an effect cache, one per line: name, size in bytes, 1 if permanent, "
        "local time of the last save or use; separated by tabs.",
        "quorvel-list");
    app.allow_windows_style_options(false);
    app.footer("Exit code: 0 listed, 2 failed.");
    std::string path;
    app.add_option("FILE", path, "the cache file")->required();
    try {
        app.parse(argc, argv);
        List(path, out);
        return out.flush() ? kDone : kFailed;
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, err) == 0 ? kDone : kFailed;
    } catch (const std::exception& error) {
        err << "quorvel-list: " << path << ": " << error.what() << '\n';
        return kFailed;
    }
}

}  // namespace Quorvel::Tools
