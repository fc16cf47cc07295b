// Decals: pictures projected by a box onto whatever the depth buffer shows inside it.
//
//@ axis BLEND 0 1 2
//@ axis NORMALS 0 1
//@ axis ANGLE_FADE 0 1
//@ axis EDGE_FADE 0 1
//@ program VertexMain vs_4_0
//@ program PixelMain ps_4_0 BLEND NORMALS ANGLE_FADE EDGE_FADE
//
// BLEND        0 covers, 1 multiplies, 2 adds
// NORMALS      bends the normals below as well, and lights the result
// ANGLE_FADE   fades on surfaces that the box meets at a grazing angle
// EDGE_FADE    fades towards the far ends of the box
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Decal : register(b2)
{
    float4x4 screenToWorld;
    float4x4 worldToDecal;  // the box becomes the cube from -0.5 to 0.5
    float4 decalForward;    // direction of the projection in the world
    float4 decalColor;
    float4 keyLight;
};

Texture2D decalTexture : register(t0);
Texture2D decalNormalTexture : register(t1);
Texture2D<float> depthTexture : register(t2);
Texture2D sceneNormalTexture : register(t3);
SamplerState decalSampler : register(s0);

struct Vertex
{
    float3 position : POSITION;
};

struct Fragment
{
    float4 position : SV_Position;
    float4 screen : TEXCOORD0;
};

Fragment VertexMain(Vertex vertex)
{
    Fragment result;
    result.position = mul(mul(float4(vertex.position, 1.0), objectToWorld), worldToClip);
    result.screen = result.position;
    return result;
}

float4 PixelMain(Fragment fragment) : SV_Target
{
    float2 onScreen = fragment.screen.xy / fragment.screen.w;
    float2 uv = onScreen * float2(0.5, -0.5) + float2(0.5, 0.5);
    float4 world = mul(float4(onScreen, depthTexture.Sample(decalSampler, uv), 1.0), screenToWorld);
    world = world / world.w;
    float3 inBox = mul(world, worldToDecal).xyz;
    float3 outside = abs(inBox);
    float inside = Below(max(outside.x, max(outside.y, outside.z)), 0.5);

    float2 place = inBox.xy * float2(1.0, -1.0) + float2(0.5, 0.5);
    float4 color = decalTexture.Sample(decalSampler, place) * decalColor;
    float3 normal = normalize(sceneNormalTexture.Sample(decalSampler, uv).xyz * 2.0 - 1.0);
    color.a *= inside;
#if ANGLE_FADE
    color.a *= Smooth(LinearStep(0.2, 0.5, dot(normal, -decalForward.xyz)));
#endif
#if EDGE_FADE
    color.a *= 1.0 - Smooth(LinearStep(0.35, 0.5, outside.z));
#endif
#if NORMALS
    float3 bump = decalNormalTexture.Sample(decalSampler, place).xyz * 2.0 - 1.0;
    float3 side = normalize(cross(normal, decalForward.xyz + float3(0.0, 0.0001, 0.0)));
    normal = normalize(normal * bump.z + side * bump.x + cross(side, normal) * bump.y);
    color.rgb *= 0.3 + 0.7 * saturate(dot(normal, keyLight.xyz));
#endif
#if BLEND == 1
    color.rgb = lerp(float3(1.0, 1.0, 1.0), color.rgb, color.a);
#elif BLEND == 2
    color.rgb *= color.a;
#endif
    return color;
}
