#include <windows.h>

#include <d3dcompiler.h>
#include <fmt/format.h>

#include <cstring>

#include "Failure.h"
#include "ShaderCompiler.h"

namespace EffectHost {

namespace {

constexpr const char* kLibrary = "d3dcompiler_47.dll";
constexpr UINT kFlags = D3DCOMPILE_OPTIMIZATION_LEVEL3 | D3DCOMPILE_ENABLE_STRICTNESS;

struct ReleaseBlob {
    void operator()(ID3DBlob* blob) const { blob->Release(); }
};
using Blob = std::unique_ptr<ID3DBlob, ReleaseBlob>;

struct FreeModule {
    void operator()(HMODULE module) const { FreeLibrary(module); }
};
using Module = std::unique_ptr<std::remove_pointer_t<HMODULE>, FreeModule>;

// Provides the includes that were read with the source.
class Includer : public ID3DInclude {
public:
    explicit Includer(const SourceText& source) : source_(source) {}

    HRESULT STDMETHODCALLTYPE Open(D3D_INCLUDE_TYPE, const char* name, const void*,
                                   const void** text, UINT* size) override {
        const auto found = source_.includes.find(name);
        if (found == source_.includes.end()) { return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND); }
        *text = found->second.data();
        *size = static_cast<UINT>(found->second.size());
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE Close(const void*) override { return S_OK; }

private:
    const SourceText& source_;
};

// The compiler's array of macros, which ends with an empty one. It points into the variant.
std::vector<D3D_SHADER_MACRO> MakeMacros(const EffectVariant& variant) {
    std::vector<D3D_SHADER_MACRO> macros;
    for (const auto& [macro, value] : variant.macros) {
        macros.push_back({macro.c_str(), value.c_str()});
    }
    macros.push_back({nullptr, nullptr});
    return macros;
}

std::string TextOf(const Blob& blob) {
    if (!blob) { return "the compiler gives no reason"; }
    const std::string text(static_cast<const char*>(blob->GetBufferPointer()),
                           blob->GetBufferSize());
    return text.c_str();  // without the NUL that the size counts
}

// The version in a library's resources; empty when there is none.
std::string FileVersion(HMODULE library) {
    // Offset of the numbers in the resource, after its header.
    constexpr std::size_t kOffset = 40;
    const HRSRC resource = FindResourceW(library, MAKEINTRESOURCEW(VS_VERSION_INFO),
                                         reinterpret_cast<const wchar_t*>(RT_VERSION));
    const HGLOBAL handle = resource ? LoadResource(library, resource) : nullptr;
    const void* const bytes = handle ? LockResource(handle) : nullptr;
    VS_FIXEDFILEINFO info{};
    if (!bytes || SizeofResource(library, resource) < kOffset + sizeof(info)) { return {}; }
    std::memcpy(&info, static_cast<const unsigned char*>(bytes) + kOffset, sizeof(info));
    return fmt::format("{}.{}.{}.{}", HIWORD(info.dwFileVersionMS), LOWORD(info.dwFileVersionMS),
                       HIWORD(info.dwFileVersionLS), LOWORD(info.dwFileVersionLS));
}

}  // namespace

struct ShaderCompiler::State {
    Module library;
    pD3DCompile compile = nullptr;
    std::string identity;
};

ShaderCompiler::ShaderCompiler() : state_(std::make_unique<State>()) {
    state_->library.reset(LoadLibraryA(kLibrary));
    if (state_->library) {
        void* entry = reinterpret_cast<void*>(GetProcAddress(state_->library.get(), "D3DCompile"));
        state_->compile = reinterpret_cast<pD3DCompile>(entry);
    }
    if (!state_->compile) {
        throw Failure(ExitCode::NoCompiler,
                      fmt::format("can't load {} (error {})", kLibrary, GetLastError()));
    }
    state_->identity = fmt::format("dxbc-{}-{:x}-{}", FileVersion(state_->library.get()), kFlags,
                                   ProbeCompiler(*this));
}

ShaderCompiler::~ShaderCompiler() = default;

const std::string& ShaderCompiler::Identity() const {
    return state_->identity;
}

Bytes ShaderCompiler::Compile(const EffectVariant& variant) const {
    RequireKnownProfile(variant);
    const std::vector<D3D_SHADER_MACRO> macros = MakeMacros(variant);
    const std::string& text = variant.source->text;
    Includer includer(*variant.source);
    ID3DBlob* rawCode = nullptr;
    ID3DBlob* rawMessages = nullptr;
    const HRESULT result = state_->compile(
        text.data(), text.size(), variant.file.c_str(), macros.data(), &includer,
        variant.entryPoint.c_str(), variant.profile.c_str(), kFlags, 0, &rawCode, &rawMessages);
    const Blob code(rawCode);
    const Blob messages(rawMessages);
    if (FAILED(result) || !code) { ThrowCompileError(variant, TextOf(messages)); }
    const auto* first = static_cast<const unsigned char*>(code->GetBufferPointer());
    return Bytes(first, first + code->GetBufferSize());
}

}  // namespace EffectHost
