// Leaves and grass that sway, let light through and have soft edges.
//
//@ axis WIND 0 1 2
//@ axis INSTANCED 0 1
//@ axis TRANSLUCENCY 0 1
//@ axis SEASON 0 1
//@ axis COVERAGE 0 1
//@ axis FOG 0 1
//@ program VertexMain vs_4_0 WIND INSTANCED
//@ program PixelMain ps_4_0 TRANSLUCENCY SEASON COVERAGE FOG
//
// WIND           0 none, 1 the plant bends, 2 its leaves flutter as well
// INSTANCED      place and size come with each instance
// TRANSLUCENCY   light from behind shines through
// SEASON         colours change with the year, not all leaves at once
// COVERAGE       alpha becomes coverage with a sharp edge
// FOG            fog by distance
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Foliage : register(b2)
{
    float4 wind;          // direction in xz of the world, strength, gusts per second
    float4 sunDirection;  // towards the sun, in world space
    float4 sunColor;      // light reflected by a white surface that faces the sun
    float4 skyColor;
    float4 autumnColor;   // rgb, and the time of the year in a
    float4 leaf;          // share of the light that shines through, threshold and width of the edge
};

// The wind never drops below the calm share; leaves flutter faster than the gusts and by less.
static const float kCalm = 0.2;
static const float kFlutterSpeed = 7.3;
static const float kFlutterPhase = 5.0;
static const float kFlutterWidth = 0.2;

Texture2D leafTexture : register(t0);
SamplerState leafSampler : register(s0);

struct Vertex
{
    float3 position : POSITION;
    float3 normal : NORMAL;
    float2 uv : TEXCOORD0;
    float4 bend : COLOR;        // how far the plant and the leaf bend; the leaf's phase in turns
    float4 place : TEXCOORD1;   // of the instance; its size in w
};

struct Fragment
{
    float4 position : SV_Position;
    float3 world : TEXCOORD0;
    float3 normal : TEXCOORD1;
    float2 uv : TEXCOORD2;
    float phase : TEXCOORD3;  // from 0 to 1, the same at all corners of a leaf
};

Fragment VertexMain(Vertex vertex)
{
#if INSTANCED
    float3 world = vertex.position * vertex.place.w + vertex.place.xyz;
    float3 normal = vertex.normal;
    float phase = vertex.bend.z + dot(vertex.place.xz, float2(0.37, 0.71));
#else
    float3 world = mul(float4(vertex.position, 1.0), objectToWorld).xyz;
    float3 normal = normalize(mul(vertex.normal, (float3x3)objectToWorld));
    float phase = vertex.bend.z;
#endif
#if WIND > 0
    DeclareSine(gust, time.x * wind.w + phase)
    world.xz += wind.xy * (wind.z * vertex.bend.x * lerp(kCalm, 1.0, gust * 0.5 + 0.5));
#endif
#if WIND > 1
    DeclareSine(flutter, time.x * wind.w * kFlutterSpeed + phase * kFlutterPhase)
    world += normal * (flutter * wind.z * vertex.bend.y * kFlutterWidth);
#endif
    Fragment result;
    result.position = mul(float4(world, 1.0), worldToClip);
    result.world = world;
    result.normal = normal;
    result.uv = vertex.uv;
    result.phase = Frac(phase);
    return result;
}

float4 PixelMain(Fragment fragment) : SV_Target
{
    float4 texel = leafTexture.Sample(leafSampler, fragment.uv);
    float3 toCamera = cameraPosition.xyz - fragment.world;
    float3 albedo = texel.rgb;
#if SEASON
    float turned = saturate(autumnColor.a * 2.0 - fragment.phase);
    albedo = lerp(albedo, Luminance(albedo) * autumnColor.rgb, turned);
#endif
    float3 normal = normalize(fragment.normal);
    if (dot(normal, toCamera) < 0.0)
    {
        normal = -normal;  // both sides of a leaf are visible
    }
    float facing = dot(normal, sunDirection.xyz);
    float sun = saturate(facing);
#if TRANSLUCENCY
    // Light that shines through is not reflected; most of it keeps its direction.
    float against = saturate(dot(normalize(-toCamera), sunDirection.xyz));
    float through = saturate(-facing) * lerp(0.5, 1.0, Square(against));
    sun = lerp(sun, through, leaf.x);
#endif
    float3 color = albedo * (sunColor.rgb * sun + skyColor.rgb);
#if FOG
    ApplyFog(color, length(toCamera))
#endif
    float alpha = texel.a;
#if COVERAGE
    alpha = saturate((alpha - leaf.y) / leaf.z + 0.5);
#endif
    return float4(color, alpha);
}
