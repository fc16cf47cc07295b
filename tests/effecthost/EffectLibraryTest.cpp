#include "EffectLibrary.h"

#include <gmock/gmock.h>

#include <fstream>
#include <set>

#include "FailureOf.h"
#include "Processes.h"
#include "support/TemporaryDirectory.h"

namespace EffectHost {
namespace {

using Quorvel::Testing::TemporaryDirectory;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

void Write(const TemporaryDirectory& folder, const char* name, const char* text) {
    std::ofstream(folder.Path() / name, std::ios::binary) << text;
}

std::vector<std::string> MacroTexts(const std::vector<std::vector<MacroValue>>& combinations) {
    std::vector<std::string> texts;
    texts.reserve(combinations.size());
    for (const auto& combination : combinations) {
        texts.push_back(MacroText(combination));
    }
    return texts;
}

// The name of a folder's only variant.
std::string OnlyName(const TemporaryDirectory& folder) {
    const EffectLibrary library = LoadEffectLibrary(folder.Path());
    EXPECT_EQ(library.variants.size(), 1u);
    return EffectName(library.variants.at(0), "compiler");
}

TEST(EffectLibrary, AxesExpandToEveryCombinationWithTheLastChangingFastest) {
    EXPECT_THAT(MacroTexts(ExpandAxes({{"A", {"0", "1"}}, {"B", {"1", "2", "4"}}})),
                ElementsAre("A=0,B=1", "A=0,B=2", "A=0,B=4", "A=1,B=1", "A=1,B=2", "A=1,B=4"));
}

TEST(EffectLibrary, WithoutAxesThereIsOneVariantWithoutMacros) {
    EXPECT_THAT(MacroTexts(ExpandAxes({})), ElementsAre(""));
}

TEST(EffectLibrary, VariantsAreSortedByFileName) {
    const TemporaryDirectory folder;
    Write(folder, "b.hlsl", "//@ program P ps_4_0\n");
    Write(folder, "a.hlsl", "//@ axis X 0 1\n//@ program Q vs_4_0 X\n");
    Write(folder, "c.hlsli", "not an effect of its own");
    const EffectLibrary library = LoadEffectLibrary(folder.Path());
    EXPECT_EQ(library.sourceCount, 2u);
    ASSERT_EQ(library.variants.size(), 3u);
    EXPECT_EQ(library.variants[0].file, "a.hlsl");
    EXPECT_EQ(MacroText(library.variants[1].macros), "X=1");
    EXPECT_EQ(library.variants[2].file, "b.hlsl");
}

TEST(EffectLibrary, ANameContainsSourceEntryPointProfileMacrosAndCompiler) {
    const TemporaryDirectory folder;
    Write(folder, "a.hlsl", "//@ axis X 3\n//@ program Q vs_4_0 X\n");
    EXPECT_THAT(OnlyName(folder), StartsWith("a.hlsl:Q:vs_4_0:X=3:compiler-"));
}

TEST(EffectLibrary, AnEditedSourceGetsAnotherName) {
    const TemporaryDirectory folder;
    Write(folder, "a.hlsl", "//@ program Q vs_4_0\n");
    const std::string before = OnlyName(folder);
    EXPECT_EQ(OnlyName(folder), before);
    Write(folder, "a.hlsl", "//@ program Q vs_4_0\n// edited\n");
    EXPECT_NE(OnlyName(folder), before);
}

TEST(EffectLibrary, AnEditedIncludeOfAnIncludeGetsAnotherName) {
    const TemporaryDirectory folder;
    Write(folder, "a.hlsl", "//@ program Q vs_4_0\n#include \"b.hlsli\"\n");
    Write(folder, "b.hlsli", "  #include \"c.hlsli\"\n");
    Write(folder, "c.hlsli", "#define C 1\n");
    const std::string before = OnlyName(folder);
    Write(folder, "c.hlsli", "#define C 2\n");
    EXPECT_NE(OnlyName(folder), before);
}

TEST(EffectLibrary, FilesThatIncludeEachOtherAreReadOnce) {
    const TemporaryDirectory folder;
    Write(folder, "a.hlsl", "//@ program Q vs_4_0\n#include \"b.hlsli\"\n");
    Write(folder, "b.hlsli", "#include \"b.hlsli\"\n");
    EXPECT_EQ(LoadEffectLibrary(folder.Path()).variants.at(0).source->includes.size(), 1u);
}

TEST(EffectLibrary, MissingFoldersEmptyFoldersAndMissingIncludesAreRefused) {
    const TemporaryDirectory folder;
    const auto load = [](const std::filesystem::path& path) {
        return FailureOf(ExitCode::BadEffects, [&] { LoadEffectLibrary(path); });
    };
    EXPECT_THAT(load(folder.Path() / "none"), HasSubstr("none"));
    EXPECT_THAT(load(folder.Path()), HasSubstr("there is no .hlsl file in"));
    Write(folder, "a.hlsl", "//@ program Q vs_4_0\n#include \"missing.hlsli\"\n");
    EXPECT_THAT(load(folder.Path()), HasSubstr("missing.hlsli"));
    Write(folder, "a.hlsl", "//@ program Q vs_4_0\n#include <angle.hlsli>\n");
    EXPECT_THAT(load(folder.Path()), HasSubstr("a.hlsl:2"));
}

TEST(EffectLibrary, DuplicateVariantsAreRefused) {
    const TemporaryDirectory folder;
    const auto refusal = [&](const char* declaration) {
        Write(folder, "a.hlsl", declaration);
        return FailureOf(ExitCode::BadEffects, [&] { LoadEffectLibrary(folder.Path()); });
    };
    EXPECT_THAT(refusal("//@ program Q vs_4_0\n//@ program Q vs_4_0\n"),
                HasSubstr("a.hlsl: two variants are alike: Q vs_4_0"));
    EXPECT_THAT(refusal("//@ axis A 0 1\n//@ program Q vs_4_0\n//@ program Q vs_4_0 A\n"),
                HasSubstr("two variants are alike: Q vs_4_0 A=0"));
}

TEST(EffectLibrary, TheExtensionMayBeInUpperCase) {
    const TemporaryDirectory folder;
    Write(folder, "A.HLSL", "//@ program Q vs_4_0\n");
    Write(folder, "b.Hlsl", "//@ program Q vs_4_0\n");
    EXPECT_EQ(LoadEffectLibrary(folder.Path()).sourceCount, 2u);
}

TEST(EffectLibrary, AFolderNamedLikeAnEffectIsRefused) {
    const TemporaryDirectory folder;
    std::filesystem::create_directory(folder.Path() / "x.hlsl");
    EXPECT_THAT(FailureOf(ExitCode::BadEffects, [&] { LoadEffectLibrary(folder.Path()); }),
                HasSubstr("x.hlsl is not a file"));
}

// The files that an effect with this text includes, in a folder that has only b.hlsli.
std::vector<std::string> IncludesOf(const std::string& text) {
    const TemporaryDirectory folder;
    Write(folder, "b.hlsli", "float b;\n");
    Write(folder, "a.hlsl", ("//@ program Q vs_4_0\n" + text).c_str());
    std::vector<std::string> names;
    const EffectLibrary library = LoadEffectLibrary(folder.Path());
    for (const auto& [name, included] : library.variants.at(0).source->includes) {
        names.push_back(name);
    }
    return names;
}

TEST(EffectLibrary, IncludesMayHaveSpacesAndComments) {
    for (const char* text :
         {"#include \"b.hlsli\" // the \"b\" file\n", "# include \"b.hlsli\"\n",
          "  #\tinclude\t\"b.hlsli\"\r\n", "/* b */ #include \"b.hlsli\" /* \"b\" */\n",
          "#include\"b.hlsli\"", "float a; // \"\n#include \"b.hlsli\"\n"}) {
        EXPECT_THAT(IncludesOf(text), ElementsAre("b.hlsli")) << text;
    }
}

TEST(EffectLibrary, CommentedOutIncludesAreIgnored) {
    for (const char* text :
         {"// #include \"none\"\n", "/* a\n#include \"none\"\n*/\n", "/* #include \"none\"",
          "//* #include \"none\"\n", "#includes \"none\"\n", "#define include \"none\"\n"}) {
        EXPECT_THAT(IncludesOf(text), ElementsAre()) << text;
    }
}

TEST(EffectLibrary, IncludeDirectivesAreNormalisedAndEverythingElseStays) {
    const TemporaryDirectory folder;
    Write(folder, "b.hlsli", "# include \"b.hlsli\"\n");
    Write(folder, "a.hlsl", "//@ program Q vs_4_0\n  # include  \"b.hlsli\" // b\nfloat a;\n");
    const EffectLibrary library = LoadEffectLibrary(folder.Path());
    const SourceText& source = *library.variants.at(0).source;
    EXPECT_EQ(source.text, "//@ program Q vs_4_0\n  #include\"b.hlsli\" // b\nfloat a;\n");
    EXPECT_EQ(source.includes.at("b.hlsli"), "#include\"b.hlsli\"\n");
}

TEST(EffectLibrary, TheEffectsShippedWithTheProgramHaveDistinctNames) {
    const EffectLibrary library = LoadEffectLibrary(ExecutablePath().parent_path() / "effects");
    EXPECT_GE(library.sourceCount, 12u);
    EXPECT_GE(library.variants.size(), 500u);
    std::set<std::string> names;
    for (const EffectVariant& variant : library.variants) {
        names.insert(EffectName(variant, "compiler"));
    }
    EXPECT_EQ(names.size(), library.variants.size());
}

}  // namespace
}  // namespace EffectHost
