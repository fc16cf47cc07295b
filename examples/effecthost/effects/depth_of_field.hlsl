// Points that are out of focus blur into discs of light.
//
//@ axis LENS 0 1
//@ axis TAPS 4 8 12 16
//@ axis SHAPE 0 1
//@ axis HIGHLIGHTS 0 1
//@ axis NEAR_FIELD 0 1
//@ program CirclePixelMain ps_4_0 LENS
//@ program GatherPixelMain ps_4_0 TAPS SHAPE HIGHLIGHTS NEAR_FIELD
//@ program MixPixelMain ps_4_0 NEAR_FIELD
//
// LENS         circle of confusion: 0 a ramp around the focus, 1 a thin lens
// TAPS         points of the disc that are gathered
// SHAPE        0 a round aperture, 1 a hexagonal one
// HIGHLIGHTS   bright points keep their brightness
// NEAR_FIELD   objects in front of the focus blur over their sharp neighbours
#include "Portable.hlsli"
#include "Camera.hlsli"
#include "FullScreen.hlsli"

cbuffer DepthOfField : register(b2)
{
    float4 lens;  // depth of the focus, diameter of the aperture, focal length, width of the sensor
    float4 blur;  // depths before and behind the focus over which the ramp grows; in z the radius
                  // of the widest circle in pixels
};

Texture2D sceneTexture : register(t0);
Texture2D<float> depthTexture : register(t1);
Texture2D circleTexture : register(t2);
Texture2D blurredTexture : register(t3);
SamplerState smoothSampler : register(s0);
SamplerState nearestSampler : register(s1);

// Points of the disc, in a spiral. Scaled up, the first few fill it as evenly as all of them.
static const float2 kDisc[16] = {
    float2(0.177, 0.000),   float2(-0.226, 0.207),  float2(0.035, -0.394), float2(0.285, 0.371),
    float2(-0.522, -0.093), float2(0.495, -0.316),  float2(-0.165, 0.616), float2(-0.316, -0.608),
    float2(0.683, 0.250),   float2(-0.711, 0.293),  float2(0.341, -0.735), float2(0.253, 0.810),
    float2(-0.764, -0.444), float2(0.897, -0.197),  float2(-0.548, 0.779), float2(-0.128, -0.976)};

// Distance of a hexagon's sides from its centre when its corners are at distance 1.
static const float kSide = 0.8660254;

// The circle's radius as a share of the widest: negative before the focus, positive behind it.
float4 CirclePixelMain(ScreenPoint screen) : SV_Target
{
    float depth = ViewDepth(depthTexture.Sample(nearestSampler, screen.uv));
#if LENS
    float diameter = lens.y * lens.z * (depth - lens.x) / (depth * (lens.x - lens.z));
    float pixels = 0.5 * diameter / lens.w * screenSize.x;
    float circle = clamp(pixels / blur.z, -1.0, 1.0);
#else
    float circle = saturate((depth - lens.x) / blur.y) - saturate((lens.x - depth) / blur.x);
#endif
    return float4(circle * 0.5 + 0.5, 0.0, 0.0, 1.0);
}

#define CircleAt(place) (circleTexture.Sample(nearestSampler, place).r * 2.0 - 1.0)

// The further a point's direction is from a corner, the further inwards the hexagon moves it.
#if SHAPE
#define ShapePoint \
    float side = max(abs(spot.x) * kSide + abs(spot.y) * 0.5, abs(spot.y)); \
    spot *= kSide * length(spot) / side;
#else
#define ShapePoint
#endif

static const float kSpread = pow(16.0 / float(TAPS), 0.5);
static const float kHighlight = 4.0;  // weight of a point as bright as white

#if HIGHLIGHTS
#define WeighHighlight weight *= 1.0 + kHighlight * Square(Luminance(color));
#else
#define WeighHighlight
#endif

// The circle of a point before the focus reaches as far as it is wide. The circle of a point behind
// the focus reaches no further than this pixel's own, which keeps sharp edges.
#if NEAR_FIELD
#define DeclareReach \
    float reach = min(abs(circle), own); \
    if (circle < 0.0) \
    { \
        reach = -circle; \
    }
#define CountNear nearby += saturate((-circle - length(spot)) * blur.z + 1.0);
#else
#define DeclareReach float reach = abs(circle);
#define CountNear
#endif

// A point counts when its circle is wide enough to reach this pixel.
#define AddPoint(index) \
    { \
        float2 spot = kDisc[index] * (kSpread * radius); \
        ShapePoint \
        float2 place = screen.uv + spot * screenSize.zw * blur.z; \
        float3 color = sceneTexture.Sample(smoothSampler, place).rgb; \
        float circle = CircleAt(place); \
        DeclareReach \
        float weight = saturate((reach - length(spot)) * blur.z + 1.0); \
        WeighHighlight \
        CountNear \
        sum += color * weight; \
        weights += weight; \
    }

// Alpha is the share of the points in front of the focus whose circles cover this pixel.
float4 GatherPixelMain(ScreenPoint screen) : SV_Target
{
    float own = abs(CircleAt(screen.uv));
#if NEAR_FIELD
    float radius = 1.0;
#else
    float radius = max(own, 1.0 / blur.z);
#endif
    float3 sum = sceneTexture.Sample(smoothSampler, screen.uv).rgb;
    float weights = 1.0;
    float nearby = 0.0;
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
    return float4(sum / weights, nearby / float(TAPS));
}

float4 MixPixelMain(ScreenPoint screen) : SV_Target
{
    float3 sharp = sceneTexture.Sample(smoothSampler, screen.uv).rgb;
    float4 blurred = blurredTexture.Sample(smoothSampler, screen.uv);
    // A circle of one pixel is as sharp as the picture; a circle of two pixels is blurred.
    float pixels = abs(CircleAt(screen.uv)) * blur.z;
    float share = saturate(pixels - 1.0);
#if NEAR_FIELD
    share = max(share, saturate(2.0 * blurred.a));
#endif
    return float4(lerp(sharp, blurred.rgb, share), 1.0);
}
