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
    float4 grid;          // size of the map in texels, height of white, width of a texel
    float4 morphRange;    // distances at which morphing begins and ends
    float4 sunDirection;  // towards the sun, in world space
    float4 sunColor;      // light reflected by a white surface that faces the sun
    float4 skyColor;
    float4 tiling;        // of each material, in world space
};

Texture2D heightTexture : register(t0);
Texture2D splatTexture : register(t1);  // g, b and a: shares of the second to fourth material
Texture2D material0 : register(t2);
Texture2D material1 : register(t3);
Texture2D material2 : register(t4);
Texture2D material3 : register(t5);
Texture2D bumps : register(t6);  // normals, for all of the materials
SamplerState repeatSampler : register(s0);

struct Vertex
{
    float3 position : POSITION;
    float3 normal : NORMAL;
    float3 coarse : TEXCOORD0;  // position of the vertex in the grid of half the density
};

struct Fragment
{
    float4 position : SV_Position;
    float3 world : TEXCOORD0;
    float3 normal : TEXCOORD1;
    float2 uv : TEXCOORD2;
};

#define HeightAt(texel) \
    (heightTexture.Load(int3(int2(clamp(texel, float2(0.0, 0.0), grid.xy - 1.0)), 0)).r * grid.z)

Fragment VertexMain(Vertex vertex)
{
    float3 local = vertex.position;
    float3 coarse = vertex.coarse;
    float3 normal = vertex.normal;
#if HEIGHT_MAP
    float2 here = floor(local.xz / grid.w + 0.5);
    float2 there = floor(coarse.xz / grid.w + 0.5);
    local.y = HeightAt(here);
    coarse.y = HeightAt(there);
    normal.x = HeightAt(here - float2(1.0, 0.0)) - HeightAt(here + float2(1.0, 0.0));
    normal.y = 2.0 * grid.w;
    normal.z = HeightAt(here - float2(0.0, 1.0)) - HeightAt(here + float2(0.0, 1.0));
#endif
#if MORPH
    // Measured along the ground, so that neighbours do not differ because of their heights.
    float3 place = mul(float4(local, 1.0), objectToWorld).xyz;
    float far = length(place.xz - cameraPosition.xz);
    local = lerp(local, coarse, LinearStep(morphRange.x, morphRange.y, far));
#endif
    float4 world = mul(float4(local, 1.0), objectToWorld);
    Fragment result;
    result.position = mul(world, worldToClip);
    result.world = world.xyz;
    result.normal = normalize(mul(normal, (float3x3)objectToWorld));
    result.uv = (local.xz / grid.w + 0.5) / grid.xy;
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

#define BumpAt(place) (bumps.Sample(repeatSampler, place).xy * 2.0 - 1.0)

float4 PixelMain(Fragment fragment) : SV_Target
{
    float3 normal = normalize(fragment.normal);
#if TRIPLANAR
    float3 axes = Square(Square(normal));
    axes /= axes.x + axes.y + axes.z;
#endif

    float3 albedo = Cover(material0, tiling.x);
#if LAYERS > 1
    float4 splat = splatTexture.Sample(repeatSampler, fragment.uv);
    albedo = lerp(albedo, Cover(material1, tiling.y), splat.g);
#endif
#if LAYERS > 2
    albedo = lerp(albedo, Cover(material2, tiling.z), splat.b);
#endif
#if LAYERS > 3
    albedo = lerp(albedo, Cover(material3, tiling.w), splat.a);
#endif
#if NORMAL_MAP
    // Each projection tilts the normal along its own two axes.
    float3 place = fragment.world * tiling.x;
    float2 tilt = BumpAt(place.xz);
#if TRIPLANAR
    normal.xz += tilt * axes.y;
    normal.zy += BumpAt(place.zy) * axes.x;
    normal.xy += BumpAt(place.xy) * axes.z;
#else
    normal.xz += tilt;
#endif
    normal = normalize(normal);
#endif

    float sun = saturate(dot(normal, sunDirection.xyz));
    float3 color = albedo * (sunColor.rgb * sun + skyColor.rgb * (normal.y * 0.5 + 0.5));
#if FOG
    ApplyFog(color, length(fragment.world - cameraPosition.xyz))
#endif
    return float4(color, 1.0);
}
