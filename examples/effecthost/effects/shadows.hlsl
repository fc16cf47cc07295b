// Shadow maps: the pass that draws them, and the full-screen pass that looks them up.
//
//@ axis CASCADES 1 2 4
//@ axis KERNEL 1 2 3 4
//@ axis SLOPE_BIAS 0 1
//@ axis FADE 0 1
//@ axis CUTOUT 0 1
//@ program CasterVertexMain vs_4_0 CUTOUT
//@ program CasterPixelMain ps_4_0 CUTOUT
//@ program PixelMain ps_4_0 CASCADES KERNEL SLOPE_BIAS FADE
//
// CASCADES     maps of growing range, side by side in one texture
// KERNEL       width of the square of percentage-closer taps
// SLOPE_BIAS   the bias grows where the light grazes the surface
// FADE         shadows fade out at the end of the last cascade
// CUTOUT       casters with holes where their texture is transparent
#include "Portable.hlsli"
#include "Camera.hlsli"
#include "FullScreen.hlsli"

cbuffer Shadow : register(b2)
{
    float4x4 clipToWorld;
    float4x4 worldToShadow[4];  // to the place in the texture, and the depth in z
    float4 cascadeEnd;          // distance from the camera
    float4 lightDirection;      // towards the light, in world space
    float4 shadowTexel;         // size of a texel in xy, constant and slope bias in zw
    float4x4 worldToLight;
};

Texture2D<float> depthTexture : register(t0);
Texture2D normalTexture : register(t1);         // in world space
Texture2D<float> shadowTexture : register(t2);  // each map has a border as wide as the kernel
Texture2D cutoutTexture : register(t3);
SamplerState nearestSampler : register(s0);
SamplerState smoothSampler : register(s1);

static const float kOpaque = 0.5;        // alpha below which a caster has a hole
static const float kLeastFacing = 0.05;  // cosine below which the slope bias stops growing
static const float kFadeBegin = 0.9;     // share of the range after which shadows fade

struct Caster
{
    float3 position : POSITION;
    float2 uv : TEXCOORD0;
};

struct CasterFragment
{
    float4 position : SV_Position;
#if CUTOUT
    float2 uv : TEXCOORD0;
#endif
};

CasterFragment CasterVertexMain(Caster caster)
{
    CasterFragment result;
    result.position = mul(mul(float4(caster.position, 1.0), objectToWorld), worldToLight);
#if CUTOUT
    result.uv = caster.uv;
#endif
    return result;
}

// The depth goes to a colour target that keeps the minimum, so a hole writes the far end.
float4 CasterPixelMain(CasterFragment fragment) : SV_Target
{
    float depth = fragment.position.z;
#if CUTOUT
    if (cutoutTexture.Sample(smoothSampler, fragment.uv).a < kOpaque)
    {
        depth = 1.0;
    }
#endif
    return float4(depth, depth, depth, 1.0);
}

// A tap of the kernel, in texels from its centre.
#define Tap(x, y) \
    light += float(shadowTexture.Sample(nearestSampler, place + texel * float2(x, y)) >= depth);

#if KERNEL == 1
#define Taps Tap(0.0, 0.0)
#elif KERNEL == 2
#define Taps Tap(-0.5, -0.5) Tap(0.5, -0.5) Tap(-0.5, 0.5) Tap(0.5, 0.5)
#elif KERNEL == 3
#define Taps \
    Tap(-1.0, -1.0) Tap(0.0, -1.0) Tap(1.0, -1.0) \
    Tap(-1.0, 0.0) Tap(0.0, 0.0) Tap(1.0, 0.0) \
    Tap(-1.0, 1.0) Tap(0.0, 1.0) Tap(1.0, 1.0)
#else
#define Taps \
    Tap(-1.5, -1.5) Tap(-0.5, -1.5) Tap(0.5, -1.5) Tap(1.5, -1.5) \
    Tap(-1.5, -0.5) Tap(-0.5, -0.5) Tap(0.5, -0.5) Tap(1.5, -0.5) \
    Tap(-1.5, 0.5) Tap(-0.5, 0.5) Tap(0.5, 0.5) Tap(1.5, 0.5) \
    Tap(-1.5, 1.5) Tap(-0.5, 1.5) Tap(0.5, 1.5) Tap(1.5, 1.5)
#endif

float4 PixelMain(ScreenPoint screen) : SV_Target
{
    float buffered = depthTexture.Sample(nearestSampler, screen.uv);
    float4 world = mul(float4(ClipFromUv(screen.uv), buffered, 1.0), clipToWorld);
    world = world / world.w;
    float away = length(world.xyz - cameraPosition.xyz);

    // Only the cascade for this distance is looked up.
    float4 projected = mul(world, worldToShadow[0]);
    float last = cascadeEnd.x;
#if CASCADES > 1
    if (away >= cascadeEnd.x)
    {
        projected = mul(world, worldToShadow[1]);
    }
    last = cascadeEnd.y;
#endif
#if CASCADES > 2
    if (away >= cascadeEnd.y)
    {
        projected = mul(world, worldToShadow[2]);
    }
    if (away >= cascadeEnd.z)
    {
        projected = mul(world, worldToShadow[3]);
    }
    last = cascadeEnd.w;
#endif

    float bias = shadowTexel.z;
#if SLOPE_BIAS
    float3 normal = normalize(normalTexture.Sample(nearestSampler, screen.uv).xyz * 2.0 - 1.0);
    float facing = max(dot(normal, lightDirection.xyz), kLeastFacing);
    bias += shadowTexel.w * length(cross(normal, lightDirection.xyz)) / facing;
#endif

    float2 place = projected.xy / projected.w;
    float2 texel = shadowTexel.xy;
    float depth = projected.z / projected.w - bias;
    float light = 0.0;
    Taps
    light /= float(KERNEL * KERNEL);
    if (away >= last)
    {
        light = 1.0;
    }
#if FADE
    light = lerp(light, 1.0, LinearStep(kFadeBegin * last, last, away));
#endif
    return float4(light, light, light, 1.0);
}
