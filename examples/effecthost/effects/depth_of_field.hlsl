// What is out of focus blurs into discs of light.
//
//@ axis LENS 0 1
//@ axis TAPS 4 8 12 16
//@ axis SHAPE 0 1
//@ axis HIGHLIGHTS 0 1
//@ axis NEAR_FIELD 0 1
//@ program VertexMain vs_4_0
//@ program CirclePixelMain ps_4_0 LENS
//@ program GatherPixelMain ps_4_0 TAPS SHAPE HIGHLIGHTS
//@ program MixPixelMain ps_4_0 NEAR_FIELD
//
// LENS         circle of confusion: 0 a ramp around the focus, 1 a thin lens
// TAPS         points of the disc that are gathered
// SHAPE        0 a round aperture, 1 a hexagonal one
// HIGHLIGHTS   bright points keep their brightness
// NEAR_FIELD   what is in front of the focus blurs over it
#include "Portable.hlsli"
#include "Camera.hlsli"
#include "FullScreen.hlsli"

cbuffer DepthOfField : register(b2)
{
    float4 lens;   // distance of the focus, aperture, focal length, widest circle in pixels
    float4 ramp;   // distances to the focus over which the blur grows, before and behind
};

Texture2D sceneTexture : register(t0);
Texture2D<float> depthTexture : register(t1);
Texture2D circleTexture : register(t2);
Texture2D blurredTexture : register(t3);
SamplerState smoothSampler : register(s0);

// Points of the disc, in a spiral; the hexagon draws them in towards its sides.
static const float2 kDisc[16] = {
    float2(0.177, 0.000),   float2(-0.226, 0.207),  float2(0.035, -0.394), float2(0.285, 0.371),
    float2(-0.522, -0.093), float2(0.495, -0.316),  float2(-0.165, 0.616), float2(-0.316, -0.608),
    float2(0.683, 0.250),   float2(-0.711, 0.293),  float2(0.341, -0.735), float2(0.253, 0.810),
    float2(-0.764, -0.444), float2(0.897, -0.197),  float2(-0.548, 0.779), float2(-0.128, -0.976)};

// A hexagon's points lie nearer to the centre the further their direction is from a corner.
#if SHAPE
#define ShapePoint \
    float side = max(abs(spot.x) * 0.87 + abs(spot.y) * 0.5, abs(spot.y)); \
    spot *= 0.87 / max(side / (length(spot) + 0.0001), 0.87);
#else
#define ShapePoint
#endif

// Negative before the focus, positive behind it; 1 is the widest circle.
float4 CirclePixelMain(ScreenPoint screen) : SV_Target
{
    float depth = ViewDepth(depthTexture.Sample(smoothSampler, screen.uv));
#if LENS
    float circle = lens.y * lens.z * (depth - lens.x) / (depth * (lens.x - lens.z) + 0.0001);
    circle = clamp(circle * screenSize.x / lens.w, -1.0, 1.0);
#else
    float before = saturate((lens.x - depth) / ramp.x);
    float behind = saturate((depth - lens.x) / ramp.y);
    float circle = behind - before;
#endif
    return float4(circle * 0.5 + 0.5, 0.0, 0.0, 1.0);
}

#if HIGHLIGHTS
#define WeighHighlight \
    float bright = Luminance(color); \
    weight *= 1.0 + 4.0 * bright * bright;
#else
#define WeighHighlight
#endif

// A point counts when its own circle is wide enough to reach this pixel.
#define AddPoint(index) \
    { \
        float2 spot = kDisc[index]; \
        ShapePoint \
        float2 place = screen.uv + spot * screenSize.zw * lens.w * own; \
        float3 color = sceneTexture.Sample(smoothSampler, place).rgb; \
        float reach = abs(circleTexture.Sample(smoothSampler, place).r * 2.0 - 1.0); \
        float weight = saturate(reach - length(spot) * own + 1.0); \
        WeighHighlight \
        sum += color * weight; \
        weights += weight; \
    }

float4 GatherPixelMain(ScreenPoint screen) : SV_Target
{
    float own = abs(circleTexture.Sample(smoothSampler, screen.uv).r * 2.0 - 1.0);
    float3 sum = sceneTexture.Sample(smoothSampler, screen.uv).rgb;
    float weights = 1.0;
    AddPoint(0) AddPoint(1) AddPoint(2) AddPoint(3)
#if TAPS > 4
    AddPoint(4) AddPoint(5) AddPoint(6) AddPoint(7)
#endif
#if TAPS > 8
    AddPoint(8) AddPoint(9) AddPoint(10) AddPoint(11)
#endif
#if TAPS > 12
    AddPoint(12) AddPoint(13) AddPoint(14) AddPoint(15)
#endif
    return float4(sum / weights, own);
}

float4 MixPixelMain(ScreenPoint screen) : SV_Target
{
    float3 sharp = sceneTexture.Sample(smoothSampler, screen.uv).rgb;
    float4 blurred = blurredTexture.Sample(smoothSampler, screen.uv);
    float circle = circleTexture.Sample(smoothSampler, screen.uv).r * 2.0 - 1.0;
    float share = Smooth(saturate(abs(circle) * 4.0));
#if NEAR_FIELD
    share = max(share, Smooth(saturate(blurred.a * 2.0)) * AtLeast(blurred.a, -circle));
#endif
    return float4(lerp(sharp, blurred.rgb, share), 1.0);
}
