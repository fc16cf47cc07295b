// Blurs each pixel along its path while the shutter was open.
//
//@ axis SAMPLES 4 8 12 16
//@ axis VELOCITY 0 1
//@ axis DEPTH_AWARE 0 1
//@ axis JITTER 0 1
//@ program PixelMain ps_4_0 SAMPLES VELOCITY DEPTH_AWARE JITTER
//
// SAMPLES       samples along the path
// VELOCITY      0 the camera's movement alone, from the depth; 1 a texture of velocities
// DEPTH_AWARE   points behind this pixel do not smear over it
// JITTER        starts at a different point at every pixel: noise instead of copies
#include "Portable.hlsli"
#include "Camera.hlsli"
#include "FullScreen.hlsli"

cbuffer MotionBlur : register(b2)
{
    float4x4 clipToWorld;
    float4x4 lastWorldToClip;
    float4 shutter;  // open share of the frame, longest path in pixels, depth tolerance
};

Texture2D sceneTexture : register(t0);
Texture2D<float> depthTexture : register(t1);
Texture2D velocityTexture : register(t2);  // movement in clip space since the last frame
SamplerState smoothSampler : register(s0);
SamplerState nearestSampler : register(s1);

static const float kStandstill = 0.001;  // path in pixels that counts as none

#if DEPTH_AWARE
#define CompareDepth \
    float there = ViewDepth(depthTexture.Sample(nearestSampler, place)); \
    weight = saturate(1.0 + (depth - there) / shutter.z);
#else
#define CompareDepth
#endif

#define AddSample(index) \
    { \
        float2 place = screen.uv + moved * ((float(index) + begin) / float(SAMPLES) - 0.5); \
        float weight = 1.0; \
        CompareDepth \
        sum += sceneTexture.Sample(smoothSampler, place).rgb * weight; \
        weights += weight; \
    }

float4 PixelMain(ScreenPoint screen) : SV_Target
{
    float buffered = depthTexture.Sample(nearestSampler, screen.uv);
    float depth = ViewDepth(buffered);
#if VELOCITY
    float2 moved = velocityTexture.Sample(nearestSampler, screen.uv).xy;
#else
    float2 now = ClipFromUv(screen.uv);
    float4 world = mul(float4(now, buffered, 1.0), clipToWorld);
    float4 last = mul(world / world.w, lastWorldToClip);
    float2 moved = now - last.xy / last.w;
#endif
    moved *= float2(0.5, -0.5) * shutter.x;
    float pixels = length(moved * screenSize.xy);
    moved *= min(1.0, shutter.y / max(pixels, kStandstill));

    float begin = 0.5;
#if JITTER
    DeclareNoise(noise, screen.position.xy)
    begin = noise;
#endif
    // The pixel itself has a small weight, in case all other points lie behind it.
    float weights = 0.001;
    float3 sum = sceneTexture.Sample(smoothSampler, screen.uv).rgb * weights;
    AddSample(0) AddSample(1) AddSample(2) AddSample(3)
#if SAMPLES > 4
    AddSample(4) AddSample(5) AddSample(6) AddSample(7)
#endif
#if SAMPLES > 8
    AddSample(8) AddSample(9) AddSample(10) AddSample(11)
#endif
#if SAMPLES > 12
    AddSample(12) AddSample(13) AddSample(14) AddSample(15)
#endif
    return float4(sum / weights, 1.0);
}
