// Open water: Gerstner waves, and a surface that reflects, refracts and absorbs light.
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
// MIRROR       reflects 0 one colour, 1 a cube map, 2 the mirrored scene
// REFRACTION   the ground shows through, and fades with the depth of the water
// FOAM         foam where the water is shallow
// DETAIL       ripples from two scrolling normal maps
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Water : register(b2)
{
    float4 waveDirection[4];  // direction in xz of the world, amplitude, steepness from 0 to 1
    float4 waveLength[4];     // length, waves per second
    float4 shallowColor;      // light from the ground that clear water transmits
    float4 deepColor;         // rgb, and how fast the water absorbs light
    float4 mirrorColor;
    float4 foamColor;         // rgb, and the depth of the water up to which it foams
    float4 ripples;           // tiling, speed, strength, tiling of the foam
};

Texture2D sceneTexture : register(t0);
Texture2D<float> depthTexture : register(t1);
Texture2D mirrorTexture : register(t2);
TextureCube skyTexture : register(t3);
Texture2D rippleTexture : register(t4);
Texture2D foamTexture : register(t5);
SamplerState waterSampler : register(s0);

static const float kReflectance = 0.02;  // of water at normal incidence
static const float kBend = 0.05;         // share of the picture by which a slope of 1 shifts it
static const float kSecondTiling = 1.7;  // tiling of the ripples that cross the first ones

struct Vertex
{
    float3 position : POSITION;
};

struct Fragment
{
    float4 position : SV_Position;
    float3 world : TEXCOORD0;
    float3 normal : TEXCOORD1;
    float depth : TEXCOORD2;
};

// A wave lifts each point and moves it towards the crest; its derivatives tilt the normal. The
// waves share the greatest possible steepness: when all have a steepness of 1, crests are sharp but
// do not fold.
#if NORMALS
#define AddNormal \
    float slope = wave.z / radius; \
    normal -= float3(wave.x * slope * cosine, share * sine, wave.y * slope * cosine);
#else
#define AddNormal
#endif

#define AddWave(index) \
    { \
        float4 wave = waveDirection[index]; \
        float4 shape = waveLength[index]; \
        float radius = shape.x / (2.0 * kPi); \
        float share = wave.w / float(WAVES); \
        float turns = dot(wave.xy, rest.xz) / shape.x - shape.y * time.x; \
        DeclareSine(sine, turns) \
        DeclareCosine(cosine, turns) \
        world.y += wave.z * sine; \
        world.xz += wave.xy * (share * radius * cosine); \
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
    result.depth = result.position.w;
    return result;
}

// Distance from the water to the scene behind it.
#define DepthBelow(pixel) \
    (depthRange.x / (depthRange.y - depthTexture.Load(int3(int2(pixel), 0)) * depthRange.z) - \
     fragment.depth)

float4 PixelMain(Fragment fragment) : SV_Target
{
    float3 view = normalize(cameraPosition.xyz - fragment.world);
    float3 normal = normalize(fragment.normal);
#if DETAIL
    float2 place = fragment.world.xz * ripples.x;
    float drift = time.x * ripples.y;
    float2 otherPlace = place * kSecondTiling - float2(0.0, drift);
    float2 ripple = rippleTexture.Sample(waterSampler, place + float2(drift, 0.0)).xy +
                    rippleTexture.Sample(waterSampler, otherPlace).xy - 1.0;
    normal = normalize(normal + float3(ripple.x, 0.0, ripple.y) * ripples.z);
#endif
    float2 uv = fragment.position.xy * screenSize.zw;

    float3 below = deepColor.rgb;
#if REFRACTION || FOAM
    float depth = DepthBelow(fragment.position.xy);
#endif
#if REFRACTION
    float2 bent = uv + normal.xz * kBend * saturate(depth);
    float through = DepthBelow(bent * screenSize.xy);
    if (through < 0.0)
    {
        bent = uv;  // objects in front of the water are not visible through it
        through = max(depth, 0.0);
    }
    float3 ground = sceneTexture.Sample(waterSampler, bent).rgb * shallowColor.rgb;
    below = lerp(below, ground, Exp(-deepColor.a * through));
#endif

#if MIRROR == 0
    float3 above = mirrorColor.rgb;
#elif MIRROR == 1
    float3 above = skyTexture.Sample(waterSampler, Reflect(-view, normal)).rgb;
#else
    float3 above = mirrorTexture.Sample(waterSampler, uv + normal.xz * kBend).rgb;
#endif
    float facing = saturate(dot(normal, view));
    float3 color = lerp(below, above, Fresnel(kReflectance, facing));
#if FOAM
    float foam = foamTexture.Sample(waterSampler, fragment.world.xz * ripples.w).r;
    color = lerp(color, foamColor.rgb, foam * saturate(1.0 - depth / foamColor.a));
#endif
    return float4(color, 1.0);
}
