// Text from an atlas of distance fields: sharp at every size.
//
//@ axis SNAP 0 1
//@ axis CHANNELS 1 3
//@ axis OUTLINE 0 1
//@ axis SHADOW 0 1
//@ axis GLOW 0 1
//@ axis GRADIENT 0 1
//@ program VertexMain vs_4_0 SNAP
//@ program PixelMain ps_4_0 CHANNELS OUTLINE SHADOW GLOW GRADIENT
//
// SNAP       glyphs begin at whole pixels
// CHANNELS   3 keeps corners sharp: the median of three distances
// OUTLINE    a line around the glyphs
// SHADOW     a soft shadow below them
// GLOW       light around them
// GRADIENT   a second colour at their bottom
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Text : register(b2)
{
    float4 topColor;
    float4 bottomColor;
    float4 outlineColor;   // rgb, and the width in a
    float4 shadowColor;
    float4 shadowOffset;   // in the atlas; softness of the shadow, reach of the glow
    float4 glowColor;
    float4 distanceRange;  // distances of the atlas for one pixel of the screen
};

Texture2D atlasTexture : register(t0);
SamplerState smoothSampler : register(s0);

struct Vertex
{
    float2 position : POSITION;  // in pixels
    float2 uv : TEXCOORD0;
    float2 inLine : TEXCOORD1;    // place in the line of text, 0 at its top
    float4 color : COLOR;
};

struct Fragment
{
    float4 position : SV_Position;
    float2 uv : TEXCOORD0;
    float2 inLine : TEXCOORD1;
    float4 color : COLOR;
};

Fragment VertexMain(Vertex vertex)
{
    float2 pixel = vertex.position;
#if SNAP
    pixel = floor(pixel + 0.5);
#endif
    Fragment result;
    float2 place = pixel * screenSize.zw * float2(2.0, -2.0) + float2(-1.0, 1.0);
    result.position = float4(place, 0.0, 1.0);
    result.uv = vertex.uv;
    result.inLine = vertex.inLine;
    result.color = vertex.color;
    return result;
}

#if CHANNELS == 3
#define DeclareDistance(result, place) \
    float3 result##Channels = atlasTexture.Sample(smoothSampler, place).rgb; \
    float result = max(min(result##Channels.r, result##Channels.g), \
                       min(max(result##Channels.r, result##Channels.g), result##Channels.b)) - 0.5;
#else
#define DeclareDistance(result, place) \
    float result = atlasTexture.Sample(smoothSampler, place).r - 0.5;
#endif

// How much of a pixel lies inside a distance, blended over one pixel of the screen.
#define Coverage(distance) saturate((distance) * distanceRange.x + 0.5)

// Puts a layer behind what is there; colours are premultiplied.
#define PutBehind(color, layer, alpha) \
    color += float4((layer).rgb, 1.0) * (alpha) * (1.0 - color.a);

float4 PixelMain(Fragment fragment) : SV_Target
{
    DeclareDistance(distance, fragment.uv)
    float3 ink = fragment.color.rgb * topColor.rgb;
#if GRADIENT
    ink = lerp(ink, fragment.color.rgb * bottomColor.rgb, Smooth(saturate(fragment.inLine.y)));
#endif
    float4 color = float4(ink, 1.0) * Coverage(distance);
#if OUTLINE
    PutBehind(color, outlineColor, Coverage(distance + outlineColor.a))
#endif
#if GLOW
    float around = saturate(1.0 + distance / shadowOffset.w);
    PutBehind(color, glowColor, around * around * glowColor.a)
#endif
#if SHADOW
    DeclareDistance(shade, fragment.uv - shadowOffset.xy)
    PutBehind(color, shadowColor, saturate(shade / shadowOffset.z + 0.5) * shadowColor.a)
#endif
    return color * fragment.color.a;
}
