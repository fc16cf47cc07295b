// Open water: Gerstner waves, and a surface that mirrors, refracts and swallows light.
//
//@ axis WAVES 1 2 3 4
//@ axis NORMALS 0 1
//@ axis MIRROR 0 1 2
//@ axis REFRACTION 0 1
//@ axis FOAM 0 1
//@ axis DETAIL 0 1
//@ program VertexMain vs_4_0 WAVES NORMALS
//@ program PixelMain ps_4_0 MIRROR REFRACTION FOAM DETAIL
//
// WAVES        waves that move the vertices
// NORMALS      the waves' normals at the vertices, or straight up
// MIRROR       0 one colour, 1 a cube map, 2 the mirrored scene
// REFRACTION   the ground shows through, and fades with the depth of the water
// FOAM         where the water is shallow
// DETAIL       ripples from two scrolling normal maps
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Water : register(b2)
{
    float4 waveDirection[4];  // direction in xy, amplitude, steepness
    float4 waveLength[4];     // length, speed
    float4 shallowColor;
    float4 deepColor;         // rgb, and how fast the water swallows light
    float4 mirrorColor;
    float4 ripples;           // tiling, speed, strength, depth of the foam
};

Texture2D sceneTexture : register(t0);
Texture2D<float> depthTexture : register(t1);
Texture2D mirrorTexture : register(t2);
TextureCube skyTexture : register(t3);
Texture2D rippleTexture : register(t4);
Texture2D foamTexture : register(t5);
SamplerState waterSampler : register(s0);

struct Vertex
{
    float3 position : POSITION;
};

struct Fragment
{
    float4 position : SV_Position;
    float3 world : TEXCOORD0;
    float3 normal : TEXCOORD1;
    float4 screen : TEXCOORD2;
};

// A wave lifts each point and draws it towards the crest; its derivatives tilt the normal.
#if NORMALS
#define AddNormal \
    float slope = 2.0 * kPi / shape.x * wave.z; \
    normal -= float3(wave.x * slope * cosine, wave.w * slope * sine, wave.y * slope * cosine);
#else
#define AddNormal
#endif

#define AddWave(index) \
    { \
        float4 wave = waveDirection[index]; \
        float4 shape = waveLength[index]; \
        float turns = dot(wave.xy, rest.xz) / shape.x + shape.y * time.x; \
        DeclareSine(sine, turns) \
        DeclareCosine(cosine, turns) \
        world.y += wave.z * sine; \
        world.xz += wave.xy * (wave.w * wave.z * cosine); \
        AddNormal \
    }

Fragment VertexMain(Vertex vertex)
{
    float3 rest = mul(float4(vertex.position, 1.0), objectToWorld).xyz;
    float3 world = rest;
    float3 normal = float3(0.0, 1.0, 0.0);
    AddWave(0)
#if WAVES > 1
    AddWave(1)
#endif
#if WAVES > 2
    AddWave(2)
#endif
#if WAVES > 3
    AddWave(3)
#endif
    Fragment result;
    result.position = mul(float4(world, 1.0), worldToClip);
    result.world = world;
    result.normal = normalize(normal);
    result.screen = result.position;
    return result;
}

float4 PixelMain(Fragment fragment) : SV_Target
{
    float3 toCamera = cameraPosition.xyz - fragment.world;
    float3 view = normalize(toCamera);
    float3 normal = normalize(fragment.normal);
#if DETAIL
    float2 place = fragment.world.xz * ripples.x;
    float drift = time.x * ripples.y;
    float3 ripple = rippleTexture.Sample(waterSampler, place + float2(drift, 0.0)).xyz +
                    rippleTexture.Sample(waterSampler, place * 1.7 - float2(0.0, drift)).xyz - 1.0;
    normal = normalize(normal + float3(ripple.x, 0.0, ripple.y) * ripples.z);
#endif
    float2 uv = fragment.screen.xy / fragment.screen.w * float2(0.5, -0.5) + float2(0.5, 0.5);

    float3 below = deepColor.rgb;
    float depth = ViewDepth(depthTexture.Sample(waterSampler, uv)) - fragment.screen.w;
#if REFRACTION
    float2 bent = uv + normal.xz * 0.05 * saturate(depth);
    float3 ground = sceneTexture.Sample(waterSampler, bent).rgb * shallowColor.rgb;
    below = lerp(below, ground, Exp(-deepColor.a * max(depth, 0.0)));
#endif

#if MIRROR == 0
    float3 above = mirrorColor.rgb;
#elif MIRROR == 1
    float3 above = skyTexture.Sample(waterSampler, Reflect(-view, normal)).rgb;
#else
    float3 above = mirrorTexture.Sample(waterSampler, uv + normal.xz * 0.05).rgb;
#endif
    float fresnel = 0.02 + 0.98 * pow(1.0001 - saturate(dot(normal, view)), 5.0);
    float3 color = lerp(below, above, fresnel);
#if FOAM
    float foam = foamTexture.Sample(waterSampler, fragment.world.xz * ripples.x * 4.0).r;
    color += foam * saturate(1.0 - depth / ripples.w);
#endif
    return float4(color, 1.0);
}
