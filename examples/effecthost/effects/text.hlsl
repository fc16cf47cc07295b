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
// SNAP       glyphs begin at whole pixels, and keep their size
// CHANNELS   3 keeps corners sharp: the median of three distances
// OUTLINE    a line around the glyphs
// SHADOW     a soft shadow below them
// GLOW       light around them
// GRADIENT   a second colour at the bottom
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Text : register(b2)
{
    float4 topColor;
    float4 bottomColor;
    float4 outlineColor;  // rgb
    float4 shadowColor;
    float4 shadowOffset;  // in the atlas
    float4 glowColor;
    float4 widths;        // of the outline, the shadow's soft edge and the glow, as distances of
                          // the atlas; in w the pixels of the screen for a distance of 1
};

Texture2D atlasTexture : register(t0);
SamplerState smoothSampler : register(s0);

struct Vertex
{
    float2 position : POSITION;  // in pixels
    float2 uv : TEXCOORD0;
    float inLine : TEXCOORD1;    // place in the line of text, 0 at its top, 1 at its bottom
    float2 origin : TEXCOORD2;   // where the glyph begins, in pixels
    float4 color : COLOR;
};

struct Fragment
{
    float4 position : SV_Position;
    float2 uv : TEXCOORD0;
    float inLine : TEXCOORD1;
    float4 color : COLOR;
};

Fragment VertexMain(Vertex vertex)
{
    float2 pixel = vertex.position;
#if SNAP
    pixel += floor(vertex.origin + 0.5) - vertex.origin;
#endif
    Fragment result;
    float2 place = pixel * screenSize.zw * float2(2.0, -2.0) + float2(-1.0, 1.0);
    result.position = float4(place, 0.0, 1.0);
    result.uv = vertex.uv;
    result.inLine = vertex.inLine;
    result.color = vertex.color;
    return result;
}

// Distances are from -0.5 to 0.5, and negative outside of a glyph.
#if CHANNELS == 3
#define DeclareDistance(result, place) \
    float3 result##Channels = atlasTexture.Sample(smoothSampler, place).rgb; \
    float result = max(min(result##Channels.r, result##Channels.g), \
                       min(max(result##Channels.r, result##Channels.g), result##Channels.b)) - 0.5;
#else
#define DeclareDistance(result, place) \
    float result = atlasTexture.Sample(smoothSampler, place).r - 0.5;
#endif

// Share of a pixel that lies inside, blended over one pixel of the screen.
#define Coverage(distance) saturate((distance) * widths.w + 0.5)

// Adds a layer behind the existing ones; colours are premultiplied.
#define PutBehind(color, layer, alpha) \
    color += float4((layer).rgb, 1.0) * (alpha) * (1.0 - color.a);

float4 PixelMain(Fragment fragment) : SV_Target
{
    DeclareDistance(distance, fragment.uv)
    float3 ink = fragment.color.rgb * topColor.rgb;
#if GRADIENT
    float down = saturate(fragment.inLine);
    ink = lerp(ink, fragment.color.rgb * bottomColor.rgb, Smooth(down));
#endif
    float4 color = float4(ink, 1.0) * Coverage(distance);
#if OUTLINE
    PutBehind(color, outlineColor, Coverage(distance + widths.x))
#endif
#if GLOW
    float around = saturate(1.0 + distance / widths.z);
    PutBehind(color, glowColor, around * around * glowColor.a)
#endif
#if SHADOW
    DeclareDistance(shade, fragment.uv - shadowOffset.xy)
    PutBehind(color, shadowColor, saturate(shade / widths.y + 0.5) * shadowColor.a)
#endif
    return color * fragment.color.a;
}
