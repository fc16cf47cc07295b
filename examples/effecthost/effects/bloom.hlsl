// Bloom: the parts above a threshold are shrunk, blurred along both axes and added to the picture.
//
//@ axis KNEE 0 1
//@ axis FIREFLIES 0 1
//@ axis TAPS 4 13
//@ axis RADIUS 1 2 3 4 5 6 7 8
//@ axis VERTICAL 0 1
//@ axis MIX 0 1 2
//@ axis DIRT 0 1
//@ program ThresholdPixelMain ps_4_0 KNEE FIREFLIES
//@ program ShrinkPixelMain ps_4_0 TAPS FIREFLIES
//@ program BlurPixelMain ps_4_0 RADIUS VERTICAL
//@ program MixPixelMain ps_4_0 MIX DIRT
//
// KNEE        a smooth threshold instead of a sharp one
// FIREFLIES   gives single bright pixels, which would flicker, less weight in an average
// TAPS        taps of the filter that halves the size
// RADIUS      radius of the Gaussian blur, in pairs of pixels
// VERTICAL    direction of the blur
// MIX         0 adds, 1 screens, 2 blends
// DIRT        the glow shows dirt on the lens
#include "Portable.hlsli"
#include "Camera.hlsli"
#include "FullScreen.hlsli"

cbuffer Bloom : register(b2)
{
    float4 bloom;  // threshold, width of its knee, strength of the glow (or share) and of the dirt
};

Texture2D sceneTexture : register(t0);
Texture2D glowTexture : register(t1);
Texture2D dirtTexture : register(t2);
SamplerState smoothSampler : register(s0);

static const float kBlack = 0.0001;  // brightness, or width of the knee, that counts as none

// The offset is in pixels of the render target.
#define Scene(offset) sceneTexture.Sample(smoothSampler, screen.uv + screenSize.zw * (offset)).rgb

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

// Four fetches between the pixels of a picture of twice the size read sixteen of them.
#define AddQuarters \
    AddGroup(Scene(float2(-0.5, -0.5)), 0.25) \
    AddGroup(Scene(float2(0.5, -0.5)), 0.25) \
    AddGroup(Scene(float2(-0.5, 0.5)), 0.25) \
    AddGroup(Scene(float2(0.5, 0.5)), 0.25)

// Draws to half the size of the scene.
float4 ThresholdPixelMain(ScreenPoint screen) : SV_Target
{
    float3 sum = float3(0.0, 0.0, 0.0);
    float weights = 0.0;
    AddQuarters
    float3 color = sum / weights;
    float brightness = max(color.r, max(color.g, color.b));
    float kept = max(brightness - bloom.x, 0.0);
#if KNEE
    float soft = clamp(brightness - bloom.x + bloom.y, 0.0, 2.0 * bloom.y);
    kept = max(kept, soft * soft / max(4.0 * bloom.y, kBlack));
#endif
    return float4(color * kept / max(brightness, kBlack), 1.0);
}

// Thirteen fetches form five overlapping squares: the inner one has half of the weight, the outer
// four share the rest.
float4 ShrinkPixelMain(ScreenPoint screen) : SV_Target
{
    float3 sum = float3(0.0, 0.0, 0.0);
    float weights = 0.0;
#if TAPS == 4
    AddQuarters
#else
    float3 inner = Scene(float2(-0.5, -0.5)) + Scene(float2(0.5, -0.5)) +
                   Scene(float2(-0.5, 0.5)) + Scene(float2(0.5, 0.5));
    float3 centre = Scene(float2(0.0, 0.0));
    float3 north = Scene(float2(0.0, -1.0));
    float3 south = Scene(float2(0.0, 1.0));
    float3 west = Scene(float2(-1.0, 0.0));
    float3 east = Scene(float2(1.0, 0.0));
    AddGroup(inner * 0.25, 0.5)
    AddGroup((Scene(float2(-1.0, -1.0)) + north + west + centre) * 0.25, 0.125)
    AddGroup((Scene(float2(1.0, -1.0)) + north + east + centre) * 0.25, 0.125)
    AddGroup((Scene(float2(-1.0, 1.0)) + south + west + centre) * 0.25, 0.125)
    AddGroup((Scene(float2(1.0, 1.0)) + south + east + centre) * 0.25, 0.125)
#endif
    return float4(sum / weights, 1.0);
}

// The Gaussian's deviation is the radius in pixels; the last pair is two deviations away.
static const float kFalloff = -0.5 / float(RADIUS * RADIUS);

// One fetch on each side reads two pixels: the sampler blends them for a position between them.
#define AddPair(nearer) \
    { \
        float first = nearer; \
        float second = first + 1.0; \
        float near = Exp(kFalloff * first * first); \
        float far = Exp(kFalloff * second * second); \
        float2 offset = along * (first + far / (near + far)); \
        sum += (Scene(offset) + Scene(-offset)) * (near + far); \
        weights += 2.0 * (near + far); \
    }

float4 BlurPixelMain(ScreenPoint screen) : SV_Target
{
#if VERTICAL
    float2 along = float2(0.0, 1.0);
#else
    float2 along = float2(1.0, 0.0);
#endif
    float3 sum = Scene(float2(0.0, 0.0));
    float weights = 1.0;
    AddPair(1.0)
#if RADIUS > 1
    AddPair(3.0)
#endif
#if RADIUS > 2
    AddPair(5.0)
#endif
#if RADIUS > 3
    AddPair(7.0)
#endif
#if RADIUS > 4
    AddPair(9.0)
#endif
#if RADIUS > 5
    AddPair(11.0)
#endif
#if RADIUS > 6
    AddPair(13.0)
#endif
#if RADIUS > 7
    AddPair(15.0)
#endif
    return float4(sum / weights, 1.0);
}

float4 MixPixelMain(ScreenPoint screen) : SV_Target
{
    float3 color = Scene(float2(0.0, 0.0));
    float3 glow = glowTexture.Sample(smoothSampler, screen.uv).rgb;
#if DIRT
    glow += glow * dirtTexture.Sample(smoothSampler, screen.uv).rgb * bloom.w;
#endif
#if MIX == 0
    color += glow * bloom.z;
#elif MIX == 1
    color = 1.0 - saturate(1.0 - color) * saturate(1.0 - glow * bloom.z);
#else
    color = lerp(color, glow, saturate(bloom.z));
#endif
    return float4(color, 1.0);
}
