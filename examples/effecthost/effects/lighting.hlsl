// Forward lighting of a solid surface by one to four point lights.
//
//@ axis LIGHTS 1 2 4
//@ axis MODEL 0 1
//@ axis NORMAL_MAP 0 1
//@ axis ENVIRONMENT 0 1
//@ axis FOG 0 1
//@ program VertexMain vs_4_0 NORMAL_MAP
//@ program PixelMain ps_4_0 LIGHTS MODEL NORMAL_MAP ENVIRONMENT FOG
//
// MODEL         0 Blinn-Phong, 1 microfacets (GGX, Smith, Schlick)
// NORMAL_MAP    normals from a texture in tangent space
// ENVIRONMENT   ambient light from a cube map instead of one colour
// FOG           fog by distance
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Lights : register(b2)
{
    float4 lightPosition[4];  // xyz, and the radius in w
    float4 lightColor[4];
    float4 ambientColor;
    float4 surface;           // shininess, roughness, metalness, reflectance
};

Texture2D albedoTexture : register(t0);
Texture2D normalTexture : register(t1);
TextureCube environmentTexture : register(t2);
SamplerState surfaceSampler : register(s0);

struct Vertex
{
    float3 position : POSITION;
    float3 normal : NORMAL;
    float4 tangent : TANGENT;  // w is the handedness
    float2 uv : TEXCOORD0;
};

struct Fragment
{
    float4 position : SV_Position;
    float3 world : TEXCOORD0;
    float2 uv : TEXCOORD1;
    float3 normal : TEXCOORD2;
#if NORMAL_MAP
    float4 tangent : TEXCOORD3;
#endif
};

Fragment VertexMain(Vertex vertex)
{
    float4 world = mul(float4(vertex.position, 1.0), objectToWorld);
    Fragment result;
    result.position = mul(world, worldToClip);
    result.world = world.xyz;
    result.uv = vertex.uv;
    result.normal = mul(vertex.normal, (float3x3)objectToWorld);
#if NORMAL_MAP
    result.tangent = float4(mul(vertex.tangent.xyz, (float3x3)objectToWorld), vertex.tangent.w);
#endif
    return result;
}

// Shade computes lit, what a light does to the surface, from light, halfway and nl.
#if MODEL == 0
// Lambert's diffuse term and a highlight around the half vector, normalised to keep its energy.
#define Shade \
    float nh = saturate(dot(normal, halfway)); \
    float highlight = (surface.x + 8.0) / (8.0 * kPi) * pow(nh + 0.0001, surface.x); \
    lit = (albedo + surface.w * highlight) * nl;
#else
// D is the GGX distribution, V the height-correlated Smith term, F Schlick's Fresnel term.
#define Shade \
    float nh = saturate(dot(normal, halfway)); \
    float lh = saturate(dot(light, halfway)); \
    float a2 = Square(Square(surface.y)); \
    float D = a2 / (kPi * Square(nh * nh * (a2 - 1.0) + 1.0) + 0.00001); \
    float V = 0.5 / (nl * Sqrt(nv * nv * (1.0 - a2) + a2) + \
                     nv * Sqrt(nl * nl * (1.0 - a2) + a2) + 0.00001); \
    float3 F = reflectance + (1.0 - reflectance) * pow(1.0001 - lh, 5.0); \
    lit = (albedo * (1.0 - surface.z) * (1.0 - F) / kPi + D * V * F) * nl;
#endif

// A light falls off with the square of the distance, faded to zero at its radius.
#define AddLight(index) \
    { \
        float4 place = lightPosition[index]; \
        float3 toLight = place.xyz - fragment.world; \
        float3 light = normalize(toLight); \
        float3 halfway = normalize(light + view); \
        float nl = saturate(dot(normal, light)); \
        float squared = dot(toLight, toLight); \
        float window = saturate(1.0 - Square(squared / (place.w * place.w))); \
        float falloff = window * window / (squared + 1.0); \
        float3 lit; \
        Shade \
        color += lit * lightColor[index].rgb * falloff; \
    }

float4 PixelMain(Fragment fragment) : SV_Target
{
    float4 texel = albedoTexture.Sample(surfaceSampler, fragment.uv);
    float3 albedo = texel.rgb;
    float3 toCamera = cameraPosition.xyz - fragment.world;
    float3 view = normalize(toCamera);
    float3 normal = normalize(fragment.normal);
#if NORMAL_MAP
    float3 tangent = normalize(fragment.tangent.xyz - normal * dot(fragment.tangent.xyz, normal));
    float3 bitangent = cross(normal, tangent) * fragment.tangent.w;
    float3 bump = normalTexture.Sample(surfaceSampler, fragment.uv).xyz * 2.0 - 1.0;
    normal = normalize(bump.x * tangent + bump.y * bitangent + bump.z * normal);
#endif
    float nv = saturate(dot(normal, view)) + 0.0001;
    float3 reflectance = lerp(surface.www * 0.16, albedo, surface.z);

#if ENVIRONMENT
    float3 mirrored = environmentTexture.Sample(surfaceSampler, Reflect(-view, normal)).rgb;
    float3 gleam = reflectance + (1.0 - reflectance) * pow(1.0001 - saturate(nv), 5.0);
    float3 color = ambientColor.rgb * albedo + mirrored * gleam * (1.0 - surface.y);
#else
    float3 color = ambientColor.rgb * albedo;
#endif
    AddLight(0)
#if LIGHTS > 1
    AddLight(1)
#endif
#if LIGHTS > 2
    AddLight(2)
    AddLight(3)
#endif
#if FOG
    ApplyFog(color, length(toCamera))
#endif
    return float4(color, texel.a);
}
