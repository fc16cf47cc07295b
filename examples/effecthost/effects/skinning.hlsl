// Skinned characters. The bones are in a texture, three texels per bone and one row per character,
// so that a crowd is one draw call.
//
//@ axis BONES 1 2 3 4
//@ axis FRAME 0 1 2
//@ axis MOTION 0 1
//@ axis MORPH 0 1
//@ program VertexMain vs_4_0 BONES FRAME MOTION MORPH
//@ program PixelMain ps_4_0 FRAME MOTION
//
// BONES    bones that move a vertex
// FRAME    0 positions only, without light, 1 with the normal, 2 with a normal map as well
// MOTION   writes the movement since the last frame to a second target, for motion blur
// MORPH    adds a second shape before skinning, for faces
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Skin : register(b2)
{
    float4x4 lastWorldToClip;
    float4 skinRows;   // rows of the character, now and in the last frame, in the texture
    float4 morphing;   // share of the second shape, now and in the last frame
    float4 keyLight;   // direction towards the light in world space; ambient share in w
};

Texture2D boneTexture : register(t0);
Texture2D skinTexture : register(t1);
Texture2D normalTexture : register(t2);
SamplerState skinSampler : register(s0);

struct Vertex
{
    float3 position : POSITION;
    float3 normal : NORMAL;
    float4 tangent : TANGENT;          // w is the handedness
    float2 uv : TEXCOORD0;
    float4 weights : BLENDWEIGHT;      // of the first BONES bones; they add up to 1
    uint4 bones : BLENDINDICES;
    float3 morphPosition : TEXCOORD1;  // what the second shape adds
    float3 morphNormal : TEXCOORD2;
};

struct Fragment
{
    float4 position : SV_Position;
    float2 uv : TEXCOORD0;
#if FRAME > 0
    float3 normal : TEXCOORD1;
#endif
#if FRAME > 1
    float4 tangent : TEXCOORD2;
#endif
#if MOTION
    float4 current : TEXCOORD3;
    float4 last : TEXCOORD4;
#endif
};

// Adds a bone's matrix times its weight to the three rows of the blended matrix.
#define AddBone(component) \
    { \
        float weight = vertex.weights.component; \
        int column = int(vertex.bones.component) * 3; \
        row0 += weight * boneTexture.Load(int3(column, character, 0)); \
        row1 += weight * boneTexture.Load(int3(column + 1, character, 0)); \
        row2 += weight * boneTexture.Load(int3(column + 2, character, 0)); \
    }

#if BONES == 1
#define AddBones AddBone(x)
#elif BONES == 2
#define AddBones AddBone(x) AddBone(y)
#elif BONES == 3
#define AddBones AddBone(x) AddBone(y) AddBone(z)
#else
#define AddBones AddBone(x) AddBone(y) AddBone(z) AddBone(w)
#endif

Fragment VertexMain(Vertex vertex)
{
    float4 bound = float4(vertex.position, 1.0);
    float4 lastBound = bound;
    float3 normal = vertex.normal;
#if MORPH
    bound.xyz += vertex.morphPosition * morphing.x;
    lastBound.xyz += vertex.morphPosition * morphing.y;
    normal += vertex.morphNormal * morphing.x;
#endif
    int character = int(skinRows.x);
    float4 row0 = float4(0.0, 0.0, 0.0, 0.0);
    float4 row1 = row0;
    float4 row2 = row0;
    AddBones

    Fragment result;
    float4 world = float4(dot(row0, bound), dot(row1, bound), dot(row2, bound), 1.0);
    result.position = mul(world, worldToClip);
    result.uv = vertex.uv;
#if FRAME > 0
    result.normal =
        normalize(float3(dot(row0.xyz, normal), dot(row1.xyz, normal), dot(row2.xyz, normal)));
#endif
#if FRAME > 1
    float3 tangent = vertex.tangent.xyz;
    tangent = float3(dot(row0.xyz, tangent), dot(row1.xyz, tangent), dot(row2.xyz, tangent));
    result.tangent = float4(normalize(tangent), vertex.tangent.w);
#endif
#if MOTION
    character = int(skinRows.y);
    row0 = float4(0.0, 0.0, 0.0, 0.0);
    row1 = row0;
    row2 = row0;
    AddBones
    float4 lastWorld =
        float4(dot(row0, lastBound), dot(row1, lastBound), dot(row2, lastBound), 1.0);
    result.current = result.position;
    result.last = mul(lastWorld, lastWorldToClip);
#endif
    return result;
}

struct Pixel
{
    float4 color : SV_Target0;
#if MOTION
    float4 moved : SV_Target1;  // movement in clip space since the last frame, in xy
#endif
};

Pixel PixelMain(Fragment fragment)
{
    float3 color = skinTexture.Sample(skinSampler, fragment.uv).rgb;
#if FRAME > 0
    float3 normal = normalize(fragment.normal);
#endif
#if FRAME > 1
    float3 tangent = normalize(fragment.tangent.xyz - normal * dot(fragment.tangent.xyz, normal));
    float3 bitangent = cross(normal, tangent) * fragment.tangent.w;
    float3 bump = normalTexture.Sample(skinSampler, fragment.uv).xyz * 2.0 - 1.0;
    normal = normalize(bump.x * tangent + bump.y * bitangent + bump.z * normal);
#endif
#if FRAME > 0
    // Soft light that wraps around the body.
    float wrapped = Square(saturate(dot(normal, keyLight.xyz) * 0.5 + 0.5));
    color *= lerp(wrapped, 1.0, keyLight.w);
#endif
    Pixel result;
    result.color = float4(color, 1.0);
#if MOTION
    float2 now = fragment.current.xy / fragment.current.w;
    result.moved = float4(now - fragment.last.xy / fragment.last.w, 0.0, 1.0);
#endif
    return result;
}
