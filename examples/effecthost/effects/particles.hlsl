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
// LIT        light from one side, for smoke
// FLIPBOOK   blends between the pictures of an animation
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Particles : register(b2)
{
    float4 cameraRight;   // in world space
    float4 cameraUp;
    float4 keyLight;      // direction towards the light in world space
    float4 keyColor;
    float4 ambientColor;
    float4 softness;      // distance of the fade, pictures per row, strength of the emission,
                          // lengths by which a particle stretches at a speed of 1
};

Texture2D spriteTexture : register(t0);
Texture2D<float> depthTexture : register(t1);
SamplerState spriteSampler : register(s0);

static const float kParallel = 0.0001;  // squared length of a cross product without a direction

struct Vertex
{
    float4 centre : POSITION;   // in world space, and the size in w
    float2 corner : TEXCOORD0;  // -1 to 1
    float4 motion : TEXCOORD1;  // velocity in world space, and the spin in turns in w
    float4 color : COLOR;
    float age : TEXCOORD2;      // in pictures of the animation
};

struct Fragment
{
    float4 position : SV_Position;
    float4 color : COLOR;
    float4 uv : TEXCOORD0;      // in the current picture and in the next
    float4 corner : TEXCOORD1;  // corner, share of the next picture, depth
    float3 light : TEXCOORD2;   // towards the light: along the quad's right and up, to the camera
};

// Where a picture of the animation begins. Adds half to the picture's number, so that rounding does
// not move it to another row.
#define DeclarePicture(result, number) \
    float2 result = float2(floor(number) + 0.5, 0.0) / softness.y; \
    result = float2(result.x - floor(result.x) - 0.5 / softness.y, floor(result.x) / softness.y);

Fragment VertexMain(Vertex vertex)
{
    float3 toCamera = normalize(cameraPosition.xyz - vertex.centre.xyz);
    float3 right = cameraRight.xyz;
    float3 up = cameraUp.xyz;
    float stretch = 1.0;
#if FACING == 1
    up = float3(0.0, 1.0, 0.0);
#elif FACING == 2
    float speed = length(vertex.motion.xyz);
    if (speed * speed > kParallel)
    {
        up = vertex.motion.xyz / speed;
    }
    stretch += speed * softness.w;
#endif
#if FACING > 0
    float3 side = cross(toCamera, up);
    if (dot(side, side) > kParallel)  // otherwise it is seen from its end
    {
        right = normalize(side);
    }
#endif
#if SPIN
    DeclareSine(sine, vertex.motion.w)
    DeclareCosine(cosine, vertex.motion.w)
    float3 turned = right * cosine + up * sine;
    up = up * cosine - right * sine;
    right = turned;
#endif
    float3 offset = right * vertex.corner.x + up * (vertex.corner.y * stretch);
    float3 world = vertex.centre.xyz + vertex.centre.w * offset;

    Fragment result;
    result.position = mul(float4(world, 1.0), worldToClip);
    result.color = vertex.color;
    float2 local = (vertex.corner * float2(0.5, -0.5) + 0.5) / softness.y;
    DeclarePicture(current, vertex.age)
    DeclarePicture(next, vertex.age + 1.0)
    result.uv = float4(local + current, local + next);
    result.corner = float4(vertex.corner, Frac(vertex.age), result.position.w);
    result.light = float3(dot(keyLight.xyz, right), dot(keyLight.xyz, up),
                          dot(keyLight.xyz, toCamera));
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
    // The quad represents a ball: its normal bulges towards the camera. Light wraps around smoke.
    float2 bulge = fragment.corner.xy;
    float3 normal = normalize(float3(bulge, Sqrt(1.0 - dot(bulge, bulge))));
    float lit = saturate(dot(normal, fragment.light) * 0.5 + 0.5);
    color.rgb *= ambientColor.rgb + keyColor.rgb * lit;
#endif
#if SOFT
    float scene = ViewDepth(depthTexture.Load(int3(int2(fragment.position.xy), 0)));
    float fade = saturate((scene - fragment.corner.w) / softness.x);
    color.a *= Smooth(fade);
#endif
#if BLEND == 1
    color = float4(color.rgb * color.a * softness.z, 0.0);
#elif BLEND == 2
    color.rgb *= color.a;
#endif
    return color;
}
