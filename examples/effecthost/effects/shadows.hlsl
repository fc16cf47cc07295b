// Shadow maps: the pass that draws them, and the pass over the screen that looks them up.
//
//@ axis CASCADES 1 2 4
//@ axis KERNEL 1 2 3 4
//@ axis SLOPE_BIAS 0 1
//@ axis FADE 0 1
//@ axis CUTOUT 0 1
//@ program VertexMain vs_4_0
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
    float4x4 screenToWorld;
    float4x4 worldToShadow[4];
    float4 cascadeEnd;      // distance from the camera
    float4 lightDirection;  // towards the light
    float4 shadowTexel;     // size of a texel in xy, constant and slope bias in zw
    float4x4 worldToLight;
};

Texture2D<float> depthTexture : register(t0);
Texture2D normalTexture : register(t1);
Texture2D<float> shadowTexture : register(t2);
Texture2D cutoutTexture : register(t3);
SamplerState nearestSampler : register(s0);

struct Caster
{
    float3 position : POSITION;
    float2 uv : TEXCOORD0;
};

struct CasterFragment
{
    float4 position : SV_Position;
    float depth : TEXCOORD0;
#if CUTOUT
    float2 uv : TEXCOORD1;
#endif
};

CasterFragment CasterVertexMain(Caster caster)
{
    CasterFragment result;
    result.position = mul(mul(float4(caster.position, 1.0), objectToWorld), worldToLight);
    result.depth = result.position.z / result.position.w;
#if CUTOUT
    result.uv = caster.uv;
#endif
    return result;
}

// The depth goes to a colour target that keeps the minimum; a hole writes the far end, which loses.
float4 CasterPixelMain(CasterFragment fragment) : SV_Target
{
    float depth = fragment.depth;
#if CUTOUT
    float opaque = AtLeast(cutoutTexture.Sample(nearestSampler, fragment.uv).a, 0.5);
    depth = lerp(1.0, depth, opaque);
#endif
    return float4(depth, depth, depth, 1.0);
}

// A tap of the kernel, in texels from the place that is looked up.
#define Tap(x, y) \
    lit += float(shadowTexture.Sample(nearestSampler, place + texel * float2(x, y)) >= depth);

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

// Blends in the light of a cascade for the distances that belong to it.
#define AddCascade(index, begin, end) \
    { \
        float4 projected = mul(float4(world.xyz, 1.0), worldToShadow[index]); \
        float2 place = projected.xy / projected.w; \
        float depth = projected.z / projected.w - bias; \
        float lit = 0.0; \
        Taps \
        float within = float(distance >= (begin)) * float(distance < (end)); \
        light += lit / float(KERNEL * KERNEL) * within; \
    }

float4 PixelMain(ScreenPoint screen) : SV_Target
{
    float buffered = depthTexture.Sample(nearestSampler, screen.uv);
    float4 world = mul(float4(screen.uv * float2(2.0, -2.0) + float2(-1.0, 1.0), buffered, 1.0),
                       screenToWorld);
    world = world / world.w;
    float distance = length(world.xyz - cameraPosition.xyz);

    float bias = shadowTexel.z;
#if SLOPE_BIAS
    float3 normal = normalTexture.Sample(nearestSampler, screen.uv).xyz * 2.0 - 1.0;
    float facing = saturate(dot(normalize(normal), lightDirection.xyz));
    bias += shadowTexel.w * Sqrt(1.0 - facing * facing) / (facing + 0.05);
#endif

    float2 texel = shadowTexel.xy;
    float light = 0.0;
#if CASCADES == 1
    float last = cascadeEnd.x;
    AddCascade(0, 0.0, last)
#elif CASCADES == 2
    float last = cascadeEnd.y;
    AddCascade(0, 0.0, cascadeEnd.x)
    AddCascade(1, cascadeEnd.x, last)
#else
    float last = cascadeEnd.w;
    AddCascade(0, 0.0, cascadeEnd.x)
    AddCascade(1, cascadeEnd.x, cascadeEnd.y)
    AddCascade(2, cascadeEnd.y, cascadeEnd.z)
    AddCascade(3, cascadeEnd.z, last)
#endif
    light += AtLeast(distance, last);
#if FADE
    light = lerp(light, 1.0, LinearStep(0.9 * last, last, distance));
#endif
    return float4(light, light, light, 1.0);
}
