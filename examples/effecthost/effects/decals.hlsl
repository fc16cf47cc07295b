// Decals: pictures that a box projects onto the geometry inside it, known from the depth buffer.
//
//@ axis BLEND 0 1 2
//@ axis NORMALS 0 1
//@ axis ANGLE_FADE 0 1
//@ axis EDGE_FADE 0 1
//@ program VertexMain vs_4_0
//@ program PixelMain ps_4_0 BLEND NORMALS ANGLE_FADE EDGE_FADE
//
// BLEND        0 covers, 1 multiplies, 2 adds
// NORMALS      also bends the normals below and lights the result
// ANGLE_FADE   fades on surfaces that the projection meets at a grazing angle
// EDGE_FADE    fades towards the near and the far end of the box
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Decal : register(b2)
{
    float4x4 clipToWorld;
    float4x4 worldToDecal;  // the box becomes the cube from -0.5 to 0.5
    float4 decalRight;      // the box's axes in world space: the picture's right,
    float4 decalUp;         // its upper side,
    float4 decalForward;    // and the direction of the projection
    float4 decalColor;
    float4 keyLight;        // direction towards the light in world space; ambient share in w
};

Texture2D decalTexture : register(t0);
Texture2D decalNormalTexture : register(t1);
Texture2D<float> depthTexture : register(t2);
Texture2D sceneNormalTexture : register(t3);  // in world space
SamplerState decalSampler : register(s0);

// Cosines between which a surface fades, and the depth in the box at which the fade begins.
static const float kGrazing = 0.2;
static const float kFacing = 0.5;
static const float kFadeBegin = 0.35;

// Least height of a normal above the surface, however much a normal map bends it.
static const float kLeastHeight = 0.1;

struct Vertex
{
    float3 position : POSITION;
};

struct Fragment
{
    float4 position : SV_Position;
};

Fragment VertexMain(Vertex vertex)
{
    Fragment result;
    result.position = mul(mul(float4(vertex.position, 1.0), objectToWorld), worldToClip);
    return result;
}

#define Light(normal) lerp(saturate(dot(normal, keyLight.xyz)), 1.0, keyLight.w)

float4 PixelMain(Fragment fragment) : SV_Target
{
    int3 pixel = int3(int2(fragment.position.xy), 0);
    float2 onScreen = fragment.position.xy * screenSize.zw * float2(2.0, -2.0) + float2(-1.0, 1.0);
    float4 world = mul(float4(onScreen, depthTexture.Load(pixel), 1.0), clipToWorld);
    float3 inBox = mul(world / world.w, worldToDecal).xyz;
    float3 outside = abs(inBox);

    float2 place = inBox.xy * float2(1.0, -1.0) + 0.5;
    float4 color = decalTexture.Sample(decalSampler, place) * decalColor;
    color.a *= Below(max(outside.x, max(outside.y, outside.z)), 0.5);
#if ANGLE_FADE || NORMALS
    float3 normal = normalize(sceneNormalTexture.Load(pixel).xyz * 2.0 - 1.0);
#endif
#if ANGLE_FADE
    float fade = LinearStep(kGrazing, kFacing, dot(normal, -decalForward.xyz));
    color.a *= Smooth(fade);
#endif
#if EDGE_FADE
    float nearEnd = LinearStep(kFadeBegin, 0.5, outside.z);
    color.a *= 1.0 - Smooth(nearEnd);
#endif
#if NORMALS
    float3 bump = decalNormalTexture.Sample(decalSampler, place).xyz * 2.0 - 1.0;
    float3 tilt = decalRight.xyz * bump.x + decalUp.xyz * bump.y;
    tilt -= normal * dot(normal, tilt);
    float3 bent = normalize(normal * max(bump.z, kLeastHeight) + tilt);
    float light = Light(bent);
#if BLEND == 1
    light /= max(Light(normal), 0.01);  // the scene is already lit: apply only the change
#endif
    color.rgb *= light;
#endif
#if BLEND == 1
    color.rgb = lerp(float3(1.0, 1.0, 1.0), color.rgb, color.a);
#elif BLEND == 2
    color.rgb *= color.a;
#endif
    return color;
}
