// Smoke, sparks and fire: quads that face the camera.
//
//@ axis FACING 0 1 2
//@ axis SPIN 0 1
//@ axis SOFT 0 1
//@ axis BLEND 0 1 2
//@ axis LIT 0 1
//@ axis FLIPBOOK 0 1
//@ program VertexMain vs_4_0 FACING SPIN
//@ program PixelMain ps_4_0 SOFT BLEND LIT FLIPBOOK
//
// FACING     0 the screen, 1 upright, 2 stretched along the velocity
// SPIN       turns about the line of sight
// SOFT       fades where a particle cuts into the scene
// BLEND      0 alpha, 1 added light, 2 premultiplied
// LIT        light from one side, as smoke has
// FLIPBOOK   blends between the pictures of an animation
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Particles : register(b2)
{
    float4 cameraRight;
    float4 cameraUp;
    float4 keyLight;   // direction towards the light
    float4 keyColor;
    float4 smokeColor;
    float4 softness;   // distance of the fade, pictures per row, strength of the emission
};

Texture2D spriteTexture : register(t0);
Texture2D<float> depthTexture : register(t1);
SamplerState spriteSampler : register(s0);

struct Vertex
{
    float4 centre : POSITION;   // xyz, and the size in w
    float2 corner : TEXCOORD0;  // -1 to 1
    float4 motion : TEXCOORD1;  // velocity, and the spin in turns in w
    float4 color : COLOR;
    float age : TEXCOORD2;      // in pictures of the animation
};

struct Fragment
{
    float4 position : SV_Position;
    float4 color : COLOR;
    float4 uv : TEXCOORD0;       // in the picture of now, and in the next
    float4 corner : TEXCOORD1;   // corner, share of the next picture, distance from the camera
    float4 screen : TEXCOORD2;
};

// Where a picture of the animation begins.
#define DeclarePicture(result, number) \
    float2 result = float2(floor(number), 0.0) / softness.y; \
    result = float2(result.x - floor(result.x), floor(result.x) / softness.y);

Fragment VertexMain(Vertex vertex)
{
    float2 corner = vertex.corner;
#if SPIN
    DeclareSine(sine, vertex.motion.w)
    DeclareCosine(cosine, vertex.motion.w)
    corner = float2(corner.x * cosine - corner.y * sine, corner.x * sine + corner.y * cosine);
#endif
    float3 right = cameraRight.xyz;
    float3 up = cameraUp.xyz;
    float stretch = 1.0;
#if FACING == 1
    up = float3(0.0, 1.0, 0.0);
    right = normalize(cross(up, cameraPosition.xyz - vertex.centre.xyz));
#elif FACING == 2
    up = normalize(vertex.motion.xyz + float3(0.0, 0.0001, 0.0));
    right = normalize(cross(up, cameraPosition.xyz - vertex.centre.xyz));
    stretch = 1.0 + length(vertex.motion.xyz) * 0.1;
#endif
    float3 offset = right * corner.x + up * (corner.y * stretch);
    float3 world = vertex.centre.xyz + vertex.centre.w * offset;

    Fragment result;
    result.position = mul(float4(world, 1.0), worldToClip);
    result.color = vertex.color;
    float2 local = (vertex.corner * 0.5 + 0.5) / softness.y;
    DeclarePicture(current, vertex.age)
    DeclarePicture(next, vertex.age + 1.0)
    result.uv = float4(local + current, local + next);
    result.corner = float4(vertex.corner, Frac(vertex.age), result.position.w);
    result.screen = result.position;
    return result;
}

float4 PixelMain(Fragment fragment) : SV_Target
{
    float4 color = spriteTexture.Sample(spriteSampler, fragment.uv.xy);
#if FLIPBOOK
    float4 next = spriteTexture.Sample(spriteSampler, fragment.uv.zw);
    color = lerp(color, next, fragment.corner.z);
#endif
    color *= fragment.color;
#if LIT
    // The quad stands for a ball: its normal bulges towards the camera.
    float2 bulge = fragment.corner.xy;
    float3 normal = float3(bulge, Sqrt(1.0 - dot(bulge, bulge)));
    float lit = saturate(dot(normal, keyLight.xyz) * 0.5 + 0.5);
    color.rgb *= smokeColor.rgb + keyColor.rgb * lit;
#endif
#if SOFT
    float2 uv = fragment.screen.xy / fragment.screen.w * float2(0.5, -0.5) + float2(0.5, 0.5);
    float behind = ViewDepth(depthTexture.Sample(spriteSampler, uv)) - fragment.corner.w;
    color.a *= Smooth(saturate(behind / softness.x));
#endif
#if BLEND == 1
    color = float4(color.rgb * color.a * softness.z, 0.0);
#elif BLEND == 2
    color.rgb *= color.a;
#endif
    return color;
}
