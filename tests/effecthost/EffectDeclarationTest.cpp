#include "EffectDeclaration.h"

#include <gmock/gmock.h>

#include "FailureOf.h"

namespace EffectHost {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::string DeclarationRefusal(const std::string& text) {
    return FailureOf(ExitCode::BadEffects, [&] { ParseEffectDeclaration("e.hlsl", text); });
}

TEST(EffectDeclaration, AProgramHasAllValuesOfItsAxesAndTheFirstOfOthers) {
    const EffectDeclaration declaration = ParseEffectDeclaration(
        "e.hlsl",
        "// an effect\n//@ axis LIGHTS 1 2 4\n//@ axis FOG 0 1\n"
        "//@ program PixelMain ps_4_0 LIGHTS\n//@ program VertexMain vs_4_0 FOG\nfloat x;\n");
    ASSERT_EQ(declaration.programs.size(), 2u);
    const EffectProgram& pixel = declaration.programs[0];
    EXPECT_EQ(pixel.entryPoint, "PixelMain");
    EXPECT_EQ(pixel.profile, "ps_4_0");
    ASSERT_EQ(pixel.axes.size(), 2u);
    EXPECT_EQ(pixel.axes[0].macro, "LIGHTS");
    EXPECT_THAT(pixel.axes[0].values, ElementsAre("1", "2", "4"));
    EXPECT_THAT(pixel.axes[1].values, ElementsAre("0"));
}

TEST(EffectDeclaration, LinesMayEndWithCarriageReturns) {
    const EffectDeclaration declaration =
        ParseEffectDeclaration("e.hlsl", "//@ axis A 0 1\r\n//@ program P ps_4_0 A\r\n");
    EXPECT_THAT(declaration.programs[0].axes[0].values, ElementsAre("0", "1"));
}

TEST(EffectDeclaration, AFileWithoutProgramsIsRefused) {
    EXPECT_THAT(DeclarationRefusal("float x;\n"), HasSubstr("e.hlsl: declares no program"));
}

TEST(EffectDeclaration, AnUnknownAxisIsNamedWithItsLine) {
    EXPECT_THAT(DeclarationRefusal("\n//@ program P ps_4_0 LIGHTZ\n"),
                HasSubstr("e.hlsl:2: the axis LIGHTZ is not declared above"));
}

TEST(EffectDeclaration, AnAxisMayNotBeDeclaredTwice) {
    EXPECT_THAT(DeclarationRefusal("//@ axis A 0 1\n//@ axis A 0 1\n//@ program P ps_4_0 A\n"),
                HasSubstr("e.hlsl:2: the axis A is declared twice"));
}

TEST(EffectDeclaration, AnAxisThatNoProgramUsesIsRefused) {
    EXPECT_THAT(DeclarationRefusal("//@ axis A 0 1\n//@ program P ps_4_0\n"),
                HasSubstr("no program uses the axis A"));
}

TEST(EffectDeclaration, AnAxisMayNotHaveDuplicateValues) {
    EXPECT_THAT(DeclarationRefusal("//@ axis A 0 1 0\n//@ program P ps_4_0 A\n"),
                HasSubstr("e.hlsl:1: the axis A has a value twice"));
}

TEST(EffectDeclaration, MalformedLinesAreRefused) {
    for (const char* line : {"//@\n", "//@ axis A\n", "//@ program P\n", "//@ progam P ps_4_0\n"}) {
        EXPECT_THAT(DeclarationRefusal(line), HasSubstr("e.hlsl:1: expected")) << line;
    }
}

}  // namespace
}  // namespace EffectHost
