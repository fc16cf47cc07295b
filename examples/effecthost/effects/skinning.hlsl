// Skinned characters. The bones stand in a texture, three texels a bone, one row a character, so
// that a crowd is one draw call.
//
//@ axis BONES 1 2 3 4
//@ axis FRAME 0 1 2
//@ axis MOTION 0 1
//@ axis MORPH 0 1
//@ program VertexMain vs_4_0 BONES FRAME MOTION MORPH
//@ program PixelMain ps_4_0 FRAME MOTION
//
// BONES    bones that move a vertex
// FRAME    0 positions alone (shadow maps), 1 with the normal, 2 with the tangent as well
// MOTION   hands on the movement since the last frame, for motion blur
// MORPH    adds a second shape before skinning, for faces
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Skin : register(b2)
{
    float4x4 lastWorldToClip;
    float4 skinRows;   // row of the character, and of its last frame, in the texture
    float4 morphing;   // how much of the second shape
    float4 keyLight;   // direction towards the light
};

Texture2D boneTexture : register(t0);
Texture2D skinTexture : register(t1);
SamplerState skinSampler : register(s0);

struct Vertex
{
    float3 position : POSITION;
    float3 normal : NORMAL;
    float4 tangent : TANGENT;
    float2 uv : TEXCOORD0;
    float4 weights : BLENDWEIGHT;
    float4 bones : BLENDINDICES;
    float3 morphPosition : TEXCOORD1;
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

// Adds a bone's share, its matrix times its weight, to the three rows of the blended matrix.
#define AddBone(component) \
    { \
        float weight = vertex.weights.component; \
        int column = int(vertex.bones.component * 3.0); \
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
    float3 position = vertex.position;
    float3 normal = vertex.normal;
#if MORPH
    position += vertex.morphPosition * morphing.x;
    normal = normalize(normal + vertex.morphNormal * morphing.x);
#endif
    float4 bound = float4(position, 1.0);
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
    result.normal = float3(dot(row0.xyz, normal), dot(row1.xyz, normal), dot(row2.xyz, normal));
#endif
#if FRAME > 1
    float3 tangent = vertex.tangent.xyz;
    result.tangent = float4(dot(row0.xyz, tangent), dot(row1.xyz, tangent), dot(row2.xyz, tangent),
                            vertex.tangent.w);
#endif
#if MOTION
    character = int(skinRows.y);
    row0 = float4(0.0, 0.0, 0.0, 0.0);
    row1 = row0;
    row2 = row0;
    AddBones
    float4 lastWorld = float4(dot(row0, bound), dot(row1, bound), dot(row2, bound), 1.0);
    result.current = result.position;
    result.last = mul(lastWorld, lastWorldToClip);
#endif
    return result;
}

// Soft light that wraps around the body, and a rim along the silhouette of the tangent frame. With
// MOTION, how far the pixel moved since the last frame goes to blue and alpha.
float4 PixelMain(Fragment fragment) : SV_Target
{
    float3 color = skinTexture.Sample(skinSampler, fragment.uv).rgb;
#if FRAME > 0
    float3 normal = normalize(fragment.normal);
    color *= Square(saturate(dot(normal, keyLight.xyz) * 0.5 + 0.5));
#endif
#if FRAME > 1
    float along = dot(normalize(fragment.tangent.xyz), keyLight.xyz);
    color += 0.2 * pow(1.0001 - abs(along), 8.0);
#endif
    float4 result = float4(color, 1.0);
#if MOTION
    float2 moved = fragment.current.xy / fragment.current.w - fragment.last.xy / fragment.last.w;
    result = float4(Luminance(color), 0.0, moved * 0.5 + 0.5);
#endif
    return result;
}
