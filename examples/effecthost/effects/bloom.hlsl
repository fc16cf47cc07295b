// Bloom: what is brighter than a threshold, made smaller, blurred along both axes and added again.
//
//@ axis KNEE 0 1
//@ axis FIREFLIES 0 1
//@ axis TAPS 4 13
//@ axis RADIUS 1 2 3 4 5 6 7 8
//@ axis VERTICAL 0 1
//@ axis MIX 0 1 2
//@ axis DIRT 0 1
//@ program VertexMain vs_4_0
//@ program ThresholdPixelMain ps_4_0 KNEE FIREFLIES
//@ program ShrinkPixelMain ps_4_0 TAPS FIREFLIES
//@ program BlurPixelMain ps_4_0 RADIUS VERTICAL
//@ program MixPixelMain ps_4_0 MIX DIRT
//
// KNEE        a smooth threshold instead of a sharp one
// FIREFLIES   weighs single bright pixels down, which would flicker
// TAPS        of the filter that halves the size
// RADIUS      of the Gaussian blur, in pairs of pixels
// VERTICAL    direction of the blur
// MIX         0 adds, 1 screens, 2 blends
// DIRT        the glow shows dirt on the lens
#include "Portable.hlsli"
#include "Camera.hlsli"
#include "FullScreen.hlsli"

cbuffer Bloom : register(b2)
{
    float4 threshold;  // threshold, knee, strength of the glow, of the dirt
};

Texture2D sceneTexture : register(t0);
Texture2D glowTexture : register(t1);
Texture2D dirtTexture : register(t2);
SamplerState smoothSampler : register(s0);

#define Scene(offset) sceneTexture.Sample(smoothSampler, screen.uv + screenSize.zw * (offset)).rgb

float4 ThresholdPixelMain(ScreenPoint screen) : SV_Target
{
    float3 color = Scene(float2(0.0, 0.0));
    float brightness = max(color.r, max(color.g, color.b));
#if KNEE
    float soft = clamp(brightness - threshold.x + threshold.y, 0.0, 2.0 * threshold.y);
    soft = soft * soft / (4.0 * threshold.y + 0.0001);
    float kept = max(soft, brightness - threshold.x);
#else
    float kept = max(brightness - threshold.x, 0.0);
#endif
    color *= kept / max(brightness, 0.0001);
#if FIREFLIES
    color /= 1.0 + Luminance(color);
#endif
    return float4(color, 1.0);
}

#if FIREFLIES
#define WeighGroup weight /= 1.0 + Luminance(average);
#else
#define WeighGroup
#endif

#define AddGroup(group, share) \
    { \
        float3 average = group; \
        float weight = share; \
        WeighGroup \
        sum += average * weight; \
        weights += weight; \
    }

// The average of the corners of a square.
#define AddSquare(x, y, radius, share) \
    { \
        float2 corner0 = float2(x - radius, y - radius); \
        float2 corner1 = float2(x + radius, y - radius); \
        float2 corner2 = float2(x - radius, y + radius); \
        float2 corner3 = float2(x + radius, y + radius); \
        float3 average = Scene(corner0) + Scene(corner1) + Scene(corner2) + Scene(corner3); \
        average *= 0.25; \
        float weight = share; \
        WeighGroup \
        sum += average * weight; \
        weights += weight; \
    }

float4 ShrinkPixelMain(ScreenPoint screen) : SV_Target
{
    float3 sum = float3(0.0, 0.0, 0.0);
    float weights = 0.0;
#if TAPS == 4
    AddGroup(Scene(float2(-0.5, -0.5)), 0.25)
    AddGroup(Scene(float2(0.5, -0.5)), 0.25)
    AddGroup(Scene(float2(-0.5, 0.5)), 0.25)
    AddGroup(Scene(float2(0.5, 0.5)), 0.25)
#else
    // Five overlapping squares: the inner one counts half, the outer four share the rest.
    AddSquare(0.0, 0.0, 0.5, 0.5)
    AddSquare(-1.0, -1.0, 1.0, 0.125)
    AddSquare(1.0, -1.0, 1.0, 0.125)
    AddSquare(-1.0, 1.0, 1.0, 0.125)
    AddSquare(1.0, 1.0, 1.0, 0.125)
#endif
    return float4(sum / weights, 1.0);
}

// Two pixels for one fetch: the sampler blends them when it is asked between them.
#define AddPair(distance, weight) \
    { \
        float2 offset = along * (distance); \
        sum += (Scene(offset) + Scene(-offset)) * weight; \
        weights += 2.0 * weight; \
    }

float4 BlurPixelMain(ScreenPoint screen) : SV_Target
{
#if VERTICAL
    float2 along = float2(0.0, 1.0);
#else
    float2 along = float2(1.0, 0.0);
#endif
    float3 sum = Scene(float2(0.0, 0.0)) * 0.0797;
    float weights = 0.0797;
    AddPair(1.4921, 0.1518)
#if RADIUS > 1
    AddPair(3.4817, 0.1251)
#endif
#if RADIUS > 2
    AddPair(5.4713, 0.0878)
#endif
#if RADIUS > 3
    AddPair(7.4610, 0.0526)
#endif
#if RADIUS > 4
    AddPair(9.4507, 0.0268)
#endif
#if RADIUS > 5
    AddPair(11.4405, 0.0117)
#endif
#if RADIUS > 6
    AddPair(13.4303, 0.0043)
#endif
#if RADIUS > 7
    AddPair(15.4202, 0.0014)
#endif
    return float4(sum / weights, 1.0);
}

float4 MixPixelMain(ScreenPoint screen) : SV_Target
{
    float3 color = Scene(float2(0.0, 0.0));
    float3 glow = glowTexture.Sample(smoothSampler, screen.uv).rgb * threshold.z;
#if DIRT
    glow += glow * dirtTexture.Sample(smoothSampler, screen.uv).rgb * threshold.w;
#endif
#if MIX == 0
    color += glow;
#elif MIX == 1
    color = 1.0 - saturate(1.0 - color) * saturate(1.0 - glow);
#else
    color = lerp(color, glow, saturate(threshold.z));
#endif
    return float4(color, 1.0);
}
