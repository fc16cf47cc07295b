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
// MODEL         highlights: 0 Blinn and Phong's, 1 microfacets (GGX, Smith, Schlick)
// NORMAL_MAP    normals from a texture in tangent space
// ENVIRONMENT   the surface reflects a cube map, less so the rougher it is
// FOG           fog by distance
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Lights : register(b2)
{
    float4 lightPosition[4];  // in world space; radius in w
    float4 lightColor[4];     // intensity
    float4 ambientColor;      // light reflected by a white surface
    float4 surface;           // shininess, roughness, metalness, reflectance at normal incidence
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
    result.normal = normalize(mul(vertex.normal, (float3x3)objectToWorld));
#if NORMAL_MAP
    float3 tangent = normalize(mul(vertex.tangent.xyz, (float3x3)objectToWorld));
    result.tangent = float4(tangent, vertex.tangent.w);
#endif
    return result;
}

static const float kLampRadius = 0.05;  // least distance of a surface from a light
static const float kSmoothest = 0.05;   // roughness below which a highlight would be a point

// DeclareHighlight declares the strength of a light's reflection towards the camera.
#if MODEL == 0
// Scaled so that the highlight keeps its energy when it shrinks.
#define DeclareHighlight \
    float highlight = (surface.x + 8.0) / (8.0 * kPi) * pow(nh, surface.x);
#else
// The GGX distribution of normals, and Hammon's fit to Smith's masking and shadowing term.
#define DeclareHighlight \
    float alpha = Square(max(surface.y, kSmoothest)); \
    float distribution = Square(alpha / (nh * nh * (alpha * alpha - 1.0) + 1.0)) / kPi; \
    float visible = 0.5 / lerp(2.0 * nl * nv, nl + nv, alpha); \
    float highlight = distribution * visible;
#endif

// A light falls off with the square of the distance and fades to zero at its radius. Light that the
// surface reflects is not scattered.
#define AddLight(index) \
    { \
        float4 place = lightPosition[index]; \
        float3 toLight = place.xyz - fragment.world; \
        float away = max(length(toLight), kLampRadius); \
        float3 light = toLight / away; \
        float nl = dot(normal, light); \
        if (nl > 0.0) \
        { \
            float3 halfway = normalize(light + view); \
            float nh = saturate(dot(normal, halfway)); \
            float lh = saturate(dot(light, halfway)); \
            float3 mirrored = Fresnel(reflectance, lh); \
            DeclareHighlight \
            float window = saturate(1.0 - Square(Square(away / place.w))); \
            float falloff = Square(window / away); \
            float3 lit = scattered * (1.0 - mirrored) / kPi + mirrored * highlight; \
            color += lit * lightColor[index].rgb * (nl * falloff); \
        } \
    }

float4 PixelMain(Fragment fragment) : SV_Target
{
    float3 albedo = albedoTexture.Sample(surfaceSampler, fragment.uv).rgb;
    float3 toCamera = cameraPosition.xyz - fragment.world;
    float3 view = normalize(toCamera);
    float3 normal = normalize(fragment.normal);
#if NORMAL_MAP
    float3 tangent = normalize(fragment.tangent.xyz - normal * dot(fragment.tangent.xyz, normal));
    float3 bitangent = cross(normal, tangent) * fragment.tangent.w;
    float3 bump = normalTexture.Sample(surfaceSampler, fragment.uv).xyz * 2.0 - 1.0;
    normal = normalize(bump.x * tangent + bump.y * bitangent + bump.z * normal);
#endif
    float nv = max(dot(normal, view), 0.0001);

    // Metals scatter no light and reflect in their own colour.
    float3 scattered = albedo * (1.0 - surface.z);
    float3 reflectance = lerp(surface.www, albedo, surface.z);
    float3 color = ambientColor.rgb * scattered;
#if ENVIRONMENT
    float3 around = environmentTexture.Sample(surfaceSampler, Reflect(-view, normal)).rgb;
    color += around * Fresnel(reflectance, nv) * Square(1.0 - surface.y);
#else
    color += ambientColor.rgb * reflectance;
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
    return float4(color, 1.0);
}
