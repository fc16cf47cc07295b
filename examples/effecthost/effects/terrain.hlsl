// Terrain: a grid raised by a height map, covered with up to four materials.
//
//@ axis HEIGHT_MAP 0 1
//@ axis MORPH 0 1
//@ axis LAYERS 1 2 3 4
//@ axis TRIPLANAR 0 1
//@ axis NORMAL_MAP 0 1
//@ axis FOG 0 1
//@ program VertexMain vs_4_0 HEIGHT_MAP MORPH
//@ program PixelMain ps_4_0 LAYERS TRIPLANAR NORMAL_MAP FOG
//
// HEIGHT_MAP   heights and normals come from a texture, not from the vertices
// MORPH        vertices slide to the coarser grid with the distance, so that no level pops in
// LAYERS       materials, mixed by a splat map
// TRIPLANAR    projects the materials along three axes, so that cliffs don't smear
// NORMAL_MAP   the materials have normals
// FOG          fog by distance
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Terrain : register(b2)
{
    float4 grid;        // size of the map in texels, height of white, spacing of the vertices
    float4 morphRange;  // distances at which morphing begins and ends
    float4 sunDirection;
    float4 sunColor;
    float4 skyColor;
    float4 tiling;      // of each material
};

Texture2D heightTexture : register(t0);
Texture2D splatTexture : register(t1);
Texture2D material0 : register(t2);
Texture2D material1 : register(t3);
Texture2D material2 : register(t4);
Texture2D material3 : register(t5);
Texture2D bumps : register(t6);
SamplerState repeatSampler : register(s0);

struct Vertex
{
    float3 position : POSITION;
    float3 normal : NORMAL;
    float2 coarse : TEXCOORD0;  // the place of the vertex in the grid of half the density
};

struct Fragment
{
    float4 position : SV_Position;
    float3 world : TEXCOORD0;
    float3 normal : TEXCOORD1;
    float2 uv : TEXCOORD2;
};

#define HeightAt(place) (heightTexture.Load(int3(int2(place), 0)).r * grid.z)

Fragment VertexMain(Vertex vertex)
{
    float3 local = vertex.position;
#if MORPH
    float far = length(mul(float4(local, 1.0), objectToWorld).xyz - cameraPosition.xyz);
    local.xz = lerp(local.xz, vertex.coarse, LinearStep(morphRange.x, morphRange.y, far));
#endif
    float3 normal = vertex.normal;
#if HEIGHT_MAP
    float2 texel = local.xz / grid.w;
    local.y = HeightAt(texel);
    normal.x = HeightAt(texel - float2(1.0, 0.0)) - HeightAt(texel + float2(1.0, 0.0));
    normal.y = 2.0 * grid.w;
    normal.z = HeightAt(texel - float2(0.0, 1.0)) - HeightAt(texel + float2(0.0, 1.0));
#endif
    float4 world = mul(float4(local, 1.0), objectToWorld);
    Fragment result;
    result.position = mul(world, worldToClip);
    result.world = world.xyz;
    result.normal = normalize(normal);
    result.uv = local.xz / (grid.w * grid.xy);
    return result;
}

#if TRIPLANAR
#define Cover(map, scale) \
    (map.Sample(repeatSampler, fragment.world.zy * (scale)).rgb * axes.x + \
     map.Sample(repeatSampler, fragment.world.xz * (scale)).rgb * axes.y + \
     map.Sample(repeatSampler, fragment.world.xy * (scale)).rgb * axes.z)
#else
#define Cover(map, scale) map.Sample(repeatSampler, fragment.world.xz * (scale)).rgb
#endif

float4 PixelMain(Fragment fragment) : SV_Target
{
    float3 normal = normalize(fragment.normal);
    float3 axes = pow(abs(normal) + 0.0001, float3(4.0, 4.0, 4.0));
    axes /= axes.x + axes.y + axes.z;

    float4 splat = splatTexture.Sample(repeatSampler, fragment.uv);
    float3 albedo = Cover(material0, tiling.x);
#if LAYERS > 1
    albedo = lerp(albedo, Cover(material1, tiling.y), splat.g);
#endif
#if LAYERS > 2
    albedo = lerp(albedo, Cover(material2, tiling.z), splat.b);
#endif
#if LAYERS > 3
    albedo = lerp(albedo, Cover(material3, tiling.w), splat.a);
#endif
#if NORMAL_MAP
    float3 bump = Cover(bumps, tiling.x) * 2.0 - 1.0;
    normal = normalize(normal + float3(bump.x, 0.0, bump.y));
#endif

    float sun = saturate(dot(normal, sunDirection.xyz));
    float3 color = albedo * (sunColor.rgb * sun + skyColor.rgb * (normal.y * 0.5 + 0.5));
#if FOG
    ApplyFog(color, length(fragment.world - cameraPosition.xyz))
#endif
    return float4(color, 1.0);
}
