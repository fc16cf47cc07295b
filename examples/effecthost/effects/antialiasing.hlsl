// Smooths the stairs along edges of a finished picture: finds the edge that a pixel lies on, walks
// along it to both ends, and blends with the neighbour across by how near the closer end is.
//
//@ axis STEPS 2 4 8 12
//@ axis LUMA 0 1 2
//@ axis SUBPIXEL 0 1
//@ program VertexMain vs_4_0
//@ program PixelMain ps_4_0 STEPS LUMA SUBPIXEL
//
// STEPS      of the walk along the edge, to each side
// LUMA       brightness: 0 the green channel, 1 computed, 2 stored in alpha
// SUBPIXEL   softens single pixels that no edge explains
#include "Portable.hlsli"
#include "Camera.hlsli"
#include "FullScreen.hlsli"

cbuffer Antialiasing : register(b2)
{
    float4 limits;  // relative and absolute contrast of an edge, strength for single pixels
};

Texture2D pictureTexture : register(t0);
SamplerState smoothSampler : register(s0);

#if LUMA == 0
#define BrightnessAt(place) pictureTexture.Sample(smoothSampler, place).g
#elif LUMA == 1
#define BrightnessAt(place) \
    dot(pictureTexture.Sample(smoothSampler, place).rgb, float3(0.2126, 0.7152, 0.0722))
#else
#define BrightnessAt(place) pictureTexture.Sample(smoothSampler, place).a
#endif

// One step to both sides. A side that has met its end, where the brightness leaves the edge's own,
// stays where it is.
#define Step(length) \
    walking0 *= float(abs(BrightnessAt(edge - along * reach0) - edgeBrightness) < gradient); \
    walking1 *= float(abs(BrightnessAt(edge + along * reach1) - edgeBrightness) < gradient); \
    reach0 += walking0 * length; \
    reach1 += walking1 * length;

float4 PixelMain(ScreenPoint screen) : SV_Target
{
    float2 pixel = screenSize.zw;
    float2 here = screen.uv;
    float centre = BrightnessAt(here);
    float north = BrightnessAt(here + pixel * float2(0.0, -1.0));
    float south = BrightnessAt(here + pixel * float2(0.0, 1.0));
    float west = BrightnessAt(here + pixel * float2(-1.0, 0.0));
    float east = BrightnessAt(here + pixel * float2(1.0, 0.0));
    float corners = BrightnessAt(here - pixel) + BrightnessAt(here + pixel) +
                    BrightnessAt(here + pixel * float2(1.0, -1.0)) +
                    BrightnessAt(here + pixel * float2(-1.0, 1.0));
    float brightest = max(centre, max(max(north, south), max(west, east)));
    float darkest = min(centre, min(min(north, south), min(west, east)));
    float contrast = brightest - darkest;
    float isEdge = AtLeast(contrast, max(limits.y, brightest * limits.x));

    // The edge runs along the axis across which the brightness bends most.
    float across = abs(north + south - 2.0 * centre);
    float sideways = abs(west + east - 2.0 * centre);
    float horizontal = AtLeast(across, sideways);
    float before = lerp(west, north, horizontal);
    float after = lerp(east, south, horizontal);
    float towardsAfter = AtLeast(abs(after - centre), abs(before - centre));
    float facing = towardsAfter * 2.0 - 1.0;
    float2 normal = screenSize.zw * lerp(float2(1.0, 0.0), float2(0.0, 1.0), horizontal) * facing;
    float2 along = screenSize.zw * lerp(float2(0.0, 1.0), float2(1.0, 0.0), horizontal);
    float opposite = lerp(before, after, towardsAfter);
    float edgeBrightness = 0.5 * (centre + opposite);
    float gradient = 0.25 * abs(centre - opposite) + 0.0001;

    float2 edge = screen.uv + normal * 0.5;
    float reach0 = 1.0;
    float reach1 = 1.0;
    float walking0 = 1.0;
    float walking1 = 1.0;
    Step(1.0) Step(1.5)
#if STEPS > 2
    Step(2.0) Step(2.0)
#endif
#if STEPS > 4
    Step(2.0) Step(2.0) Step(2.0) Step(4.0)
#endif
#if STEPS > 8
    Step(4.0) Step(4.0) Step(8.0) Step(8.0)
#endif

    // Only the end at which the brightness turns away from this pixel's side pulls at it.
    float nearer = min(reach0, reach1);
    float firstIsNearer = Below(reach0, reach1);
    float end = BrightnessAt(edge + along * lerp(reach1, -reach0, firstIsNearer));
    float turnsAway = AtLeast((end - edgeBrightness) * (edgeBrightness - centre), 0.0);
    float shift = turnsAway * (0.5 - nearer / (reach0 + reach1));
#if SUBPIXEL
    float average = (2.0 * (north + south + west + east) + corners) / 12.0;
    float single = Smooth(saturate(abs(average - centre) / max(contrast, 0.0001)));
    shift = max(shift, single * single * limits.z);
#endif
    return pictureTexture.Sample(smoothSampler, screen.uv + normal * shift * isEdge);
}
