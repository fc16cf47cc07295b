// Screen-space ambient occlusion: how much of the half sphere above each pixel is hidden by
// geometry in the depth buffer, then a blur that stops at edges.
//
//@ axis SAMPLES 4 8 12 16
//@ axis NORMALS 0 1
//@ axis RANGE_CHECK 0 1
//@ axis ROTATE 0 1
//@ axis RADIUS 1 2 3 4
//@ axis VERTICAL 0 1
//@ axis BILATERAL 0 1
//@ program OcclusionPixelMain ps_4_0 SAMPLES NORMALS RANGE_CHECK ROTATE
//@ program BlurPixelMain ps_4_0 RADIUS VERTICAL BILATERAL
//
// SAMPLES       points of the half sphere that are tested
// NORMALS       1 from a texture, 0 from the neighbours' depths
// RANGE_CHECK   geometry far in front does not occlude
// ROTATE        turns the points by a different angle at every pixel: noise instead of bands
// RADIUS        taps of the blur to each side
// VERTICAL      direction of the blur
// BILATERAL     the blur skips taps at another depth
#include "Portable.hlsli"
#include "Camera.hlsli"
#include "FullScreen.hlsli"

cbuffer Occlusion : register(b2)
{
    float4x4 worldToView;
    float4 viewSize;    // half the width and height of the view at depth 1
    float4 hemisphere;  // radius, bias, strength, depth difference that ends the blur
};

Texture2D<float> depthTexture : register(t0);
Texture2D normalTexture : register(t1);  // in world space
Texture2D<float> occlusionTexture : register(t2);
SamplerState nearestSampler : register(s0);

// Points of the half sphere around +z, denser near its centre. Scaled up, the first few fill it as
// evenly as all of them.
static const float3 kPoints[16] = {
    float3(0.024, -0.013, 0.049),  float3(-0.053, 0.061, 0.037), float3(0.083, 0.044, 0.081),
    float3(-0.101, -0.068, 0.094), float3(0.020, -0.165, 0.073), float3(0.148, 0.121, 0.108),
    float3(-0.211, 0.085, 0.131),  float3(0.093, -0.223, 0.185), float3(0.271, -0.042, 0.208),
    float3(-0.134, 0.301, 0.197),  float3(-0.338, -0.166, 0.221), float3(0.207, 0.339, 0.284),
    float3(0.412, 0.105, 0.301),   float3(-0.189, -0.471, 0.322), float3(-0.521, 0.238, 0.357),
    float3(0.389, -0.512, 0.438)};

#define DepthAt(uv) \
    (depthRange.x / (depthRange.y - depthTexture.Sample(nearestSampler, uv) * depthRange.z))
#define ViewPosition(uv, depth) \
    float3(((uv) * float2(2.0, -2.0) + float2(-1.0, 1.0)) * viewSize.xy * (depth), depth)

#if RANGE_CHECK
#define CheckRange \
    float near = saturate(hemisphere.x / max(abs(origin.z - found), hemisphere.y)); \
    hidden *= Smooth(near);
#else
#define CheckRange
#endif

static const float kClosest = 0.01;  // least distance of a point from the camera's plane

static const float kSpread = 16.0 / float(SAMPLES);

#define AddPoint(index) \
    { \
        float3 turned = kPoints[index].x * tangent + kPoints[index].y * bitangent + \
                        kPoints[index].z * normal; \
        float3 looked = origin + turned * (kSpread * hemisphere.x); \
        float2 place = looked.xy / (max(looked.z, kClosest) * viewSize.xy); \
        place = place * float2(0.5, -0.5) + 0.5; \
        float found = DepthAt(place); \
        float hidden = AtLeast(looked.z - hemisphere.y, found); \
        CheckRange \
        occlusion += hidden; \
    }

float4 OcclusionPixelMain(ScreenPoint screen) : SV_Target
{
    float depth = DepthAt(screen.uv);
    float3 origin = ViewPosition(screen.uv, depth);
#if NORMALS
    float3 stored = normalTexture.Sample(nearestSampler, screen.uv).xyz * 2.0 - 1.0;
    float3 normal = normalize(mul(stored, (float3x3)worldToView));
#else
    float2 rightUv = screen.uv + float2(screenSize.z, 0.0);
    float2 belowUv = screen.uv + float2(0.0, screenSize.w);
    float3 toRight = ViewPosition(rightUv, DepthAt(rightUv)) - origin;
    float3 toBelow = ViewPosition(belowUv, DepthAt(belowUv)) - origin;
    float3 normal = normalize(cross(toRight, toBelow));
#endif

    // Any direction that is not parallel to the normal works.
    float3 aside = float3(1.0, 0.0, 0.0);
    if (abs(normal.x) > 0.7)
    {
        aside = float3(0.0, 1.0, 0.0);
    }
    float3 tangent = normalize(cross(aside, normal));
    float3 bitangent = cross(normal, tangent);
#if ROTATE
    DeclareNoise(turn, screen.position.xy)
    DeclareSine(sine, turn)
    DeclareCosine(cosine, turn)
    tangent = normalize(tangent * cosine + bitangent * sine);
    bitangent = cross(normal, tangent);
#endif

    float occlusion = 0.0;
    AddPoint(0) AddPoint(1) AddPoint(2) AddPoint(3)
#if SAMPLES > 4
    AddPoint(4) AddPoint(5) AddPoint(6) AddPoint(7)
#endif
#if SAMPLES > 8
    AddPoint(8) AddPoint(9) AddPoint(10) AddPoint(11)
#endif
#if SAMPLES > 12
    AddPoint(12) AddPoint(13) AddPoint(14) AddPoint(15)
#endif
    float open = saturate(1.0 - hemisphere.z * occlusion / float(SAMPLES));
    return float4(open, open, open, 1.0);
}

#if BILATERAL
#define CompareDepth weight *= Below(abs(DepthAt(place) - depth), hemisphere.w);
#else
#define CompareDepth
#endif

// A Gaussian whose deviation is half the radius.
#define AddTap(offset) \
    { \
        float2 place = screen.uv + along * (offset); \
        float share = (offset) / float(RADIUS); \
        float weight = Exp(-2.0 * share * share); \
        CompareDepth \
        sum += occlusionTexture.Sample(nearestSampler, place) * weight; \
        weights += weight; \
    }

float4 BlurPixelMain(ScreenPoint screen) : SV_Target
{
    float depth = DepthAt(screen.uv);
#if VERTICAL
    float2 along = float2(0.0, screenSize.w);
#else
    float2 along = float2(screenSize.z, 0.0);
#endif
    float sum = occlusionTexture.Sample(nearestSampler, screen.uv);
    float weights = 1.0;
    AddTap(-1.0) AddTap(1.0)
#if RADIUS > 1
    AddTap(-2.0) AddTap(2.0)
#endif
#if RADIUS > 2
    AddTap(-3.0) AddTap(3.0)
#endif
#if RADIUS > 3
    AddTap(-4.0) AddTap(4.0)
#endif
    float open = sum / weights;
    return float4(open, open, open, 1.0);
}
