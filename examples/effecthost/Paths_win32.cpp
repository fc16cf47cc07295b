#include <windows.h>

#include <shellapi.h>

#include <memory>
#include <string_view>
#include <system_error>

#include "Paths.h"
#include "WideText.h"

namespace EffectHost {

namespace {

struct CloseKernelHandle {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, CloseKernelHandle>;

struct FreeLocal {
    void operator()(wchar_t** memory) const { LocalFree(memory); }
};

constexpr std::size_t kLongestPath = 32768;

Handle OpenFolder(const std::filesystem::path& folder) {
    constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const HANDLE handle = CreateFileW(folder.c_str(), 0, kShareAll, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    return Handle(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
}

// Removes the prefix of paths that Windows takes literally.
std::wstring WithoutPrefix(const std::wstring& path) {
    constexpr std::wstring_view kServerPrefix = L"\\\\?\\UNC\\";
    constexpr std::wstring_view kPrefix = L"\\\\?\\";
    if (path.starts_with(kServerPrefix)) { return L"\\\\" + path.substr(kServerPrefix.size()); }
    return path.starts_with(kPrefix) ? path.substr(kPrefix.size()) : path;
}

}  // namespace

std::wstring ToWide(std::string_view text, unsigned int codePage) {
    const int size = static_cast<int>(text.size());
    std::wstring wide(text.size(), L'\0');
    wide.resize(static_cast<std::size_t>(
        MultiByteToWideChar(codePage, 0, text.data(), size, wide.data(), size)));
    return wide;
}

std::string FromWide(std::wstring_view text, unsigned int codePage) {
    constexpr std::size_t kMostBytes = 4;  // for one UTF-16 unit
    const int size = static_cast<int>(text.size());
    std::string narrow(text.size() * kMostBytes, '\0');
    narrow.resize(static_cast<std::size_t>(
        WideCharToMultiByte(codePage, 0, text.data(), size, narrow.data(),
                            static_cast<int>(narrow.size()), nullptr, nullptr)));
    return narrow;
}

// main() gets its words in the ANSI code page, where names may have lost characters, and the
// start-up code may have replaced patterns with file names.
std::vector<std::string> CommandLineWords(int, const char* const*) {
    int count = 0;
    const std::unique_ptr<wchar_t*, FreeLocal> wide(CommandLineToArgvW(GetCommandLineW(), &count));
    std::vector<std::string> words;
    for (int i = 0; i < count; ++i) {
        words.push_back(FromWide(wide.get()[i], CP_UTF8));
    }
    return words;
}

std::filesystem::path ToPath(const std::string& text) {
    return ToWide(text, CP_UTF8);
}

std::string ToText(const std::filesystem::path& path) {
    return FromWide(path.native(), CP_UTF8);
}

std::filesystem::path CanonicalFolder(const std::filesystem::path& folder) {
    const Handle handle = OpenFolder(folder);
    std::wstring path(kLongestPath, L'\0');
    const DWORD length =
        handle ? GetFinalPathNameByHandleW(handle.get(), path.data(), kLongestPath, 0) : 0;
    if (length == 0 || length >= kLongestPath) {
        const std::error_code error(static_cast<int>(GetLastError()), std::system_category());
        throw std::filesystem::filesystem_error("can't find the folder", folder, error);
    }
    path.resize(length);
    return WithoutPrefix(path);
}

std::optional<std::string> SpellingForFopen(const std::filesystem::path& path) {
    const std::string spelling = FromWide(path.native(), CP_ACP);
    if (ToWide(spelling, CP_ACP) != path.native()) { return std::nullopt; }
    return spelling;
}

}  // namespace EffectHost
