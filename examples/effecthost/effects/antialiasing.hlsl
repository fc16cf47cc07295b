// Smooths jagged edges of a finished picture: finds the edge that a pixel lies on, walks along it
// to both ends, and blends with the neighbour across the edge by the distance to the closer end.
//
//@ axis STEPS 2 4 8 12
//@ axis LUMA 0 1 2
//@ axis SUBPIXEL 0 1
//@ program PixelMain ps_4_0 STEPS LUMA SUBPIXEL
//
// STEPS      steps along the edge to each side
// LUMA       brightness: 0 the green channel, 1 computed, 2 stored in alpha
// SUBPIXEL   softens single pixels that are not on an edge
#include "Portable.hlsli"
#include "Camera.hlsli"
#include "FullScreen.hlsli"

cbuffer Antialiasing : register(b2)
{
    float4 limits;  // relative and absolute contrast of an edge, largest shift of single pixels
};

Texture2D pictureTexture : register(t0);
SamplerState smoothSampler : register(s0);

#if LUMA == 0
#define BrightnessAt(place) pictureTexture.Sample(smoothSampler, place).g
#elif LUMA == 1
#define BrightnessAt(place) dot(pictureTexture.Sample(smoothSampler, place).rgb, kLuminance)
#else
#define BrightnessAt(place) pictureTexture.Sample(smoothSampler, place).a
#endif

static const float kLeast = 0.0001;  // contrast that counts as none

// One step to each side. A side stops at its end, where the brightness differs from the edge's.
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
    float brightest = max(centre, max(max(north, south), max(west, east)));
    float darkest = min(centre, min(min(north, south), min(west, east)));
    float contrast = brightest - darkest;

    // The edge runs along the axis across which the brightness changes most.
    float across = abs(north + south - 2.0 * centre);
    float sideways = abs(west + east - 2.0 * centre);
    float2 normal = float2(pixel.x, 0.0);
    float2 along = float2(0.0, pixel.y);
    float before = west;
    float opposite = east;
    if (across >= sideways)
    {
        normal = float2(0.0, pixel.y);
        along = float2(pixel.x, 0.0);
        before = north;
        opposite = south;
    }
    if (abs(before - centre) > abs(opposite - centre))
    {
        opposite = before;
        normal = -normal;
    }
    float edgeBrightness = 0.5 * (centre + opposite);
    float gradient = max(0.25 * abs(centre - opposite), kLeast);

    float2 edge = here + normal * 0.5;
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

    // Only the nearer end counts, and only if its brightness is further from this pixel's than the
    // edge's is.
    float nearer = min(reach0, reach1);
    float nearerEnd = reach1;
    if (reach0 < reach1)
    {
        nearerEnd = -reach0;
    }
    float end = BrightnessAt(edge + along * nearerEnd);
    float shift = 0.0;
    if ((end - edgeBrightness) * (edgeBrightness - centre) >= 0.0)
    {
        shift = 0.5 - nearer / (reach0 + reach1);
    }
#if SUBPIXEL
    float corners = BrightnessAt(here - pixel) + BrightnessAt(here + pixel) +
                    BrightnessAt(here + pixel * float2(1.0, -1.0)) +
                    BrightnessAt(here + pixel * float2(-1.0, 1.0));
    float average = (2.0 * (north + south + west + east) + corners) / 12.0;
    float single = Smooth(saturate(abs(average - centre) / max(contrast, kLeast)));
    shift = max(shift, single * single * limits.z);
#endif
    if (contrast < max(limits.y, brightest * limits.x))
    {
        shift = 0.0;
    }
    return pictureTexture.Sample(smoothSampler, here + normal * shift);
}
