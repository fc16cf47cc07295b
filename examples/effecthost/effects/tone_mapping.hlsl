// From light to what a screen can show.
//
//@ axis CURVE 0 1 2 3 4
//@ axis ADAPT 0 1
//@ axis ENCODING 0 1 2
//@ axis VIGNETTE 0 1
//@ axis CENTRE_WEIGHTED 0 1
//@ program VertexMain vs_4_0
//@ program LuminancePixelMain ps_4_0 CENTRE_WEIGHTED
//@ program PixelMain ps_4_0 CURVE ADAPT ENCODING VIGNETTE
//
// CURVE             0 clips, 1 Reinhard, 2 Reinhard with a white point, 3 filmic, 4 ACES
// ADAPT             exposure from the measured luminance instead of a constant
// ENCODING          0 linear, 1 gamma 2.2, 2 sRGB
// VIGNETTE          darker corners
// CENTRE_WEIGHTED   the luminance measures the middle of the picture more
#include "Portable.hlsli"
#include "Camera.hlsli"
#include "FullScreen.hlsli"

cbuffer ToneMapping : register(b2)
{
    float4 exposure;  // factor, middle grey, white point, strength of the vignette
};

Texture2D sceneTexture : register(t0);
Texture2D luminanceTexture : register(t1);
SamplerState smoothSampler : register(s0);

#define SceneAt(x, y) \
    sceneTexture.Sample(smoothSampler, screen.uv + screenSize.zw * float2(x, y)).rgb

// One level of the chain that shrinks the picture to a single pixel.
float4 LuminancePixelMain(ScreenPoint screen) : SV_Target
{
    float3 color = 0.25 * (SceneAt(-1.0, -1.0) + SceneAt(1.0, -1.0) + SceneAt(-1.0, 1.0) +
                           SceneAt(1.0, 1.0));
    float average = Luminance(color);
#if CENTRE_WEIGHTED
    average *= 1.5 * saturate(1.0 - length(screen.uv - float2(0.5, 0.5)));
#endif
    return float4(average, average, average, 1.0);
}

// Hable's filmic curve, before it is scaled to its white point.
#define Filmic(x) (((x) * (0.15 * (x) + 0.05) + 0.004) / ((x) * (0.15 * (x) + 0.5) + 0.06) - 0.0667)

float4 PixelMain(ScreenPoint screen) : SV_Target
{
    float3 color = sceneTexture.Sample(smoothSampler, screen.uv).rgb;
#if ADAPT
    float measured = luminanceTexture.Sample(smoothSampler, float2(0.5, 0.5)).r;
    color *= exposure.y / max(measured, 0.001);
#else
    color *= exposure.x;
#endif
#if VIGNETTE
    float2 fromCentre = screen.uv - float2(0.5, 0.5);
    color *= Square(saturate(1.0 - exposure.w * dot(fromCentre, fromCentre)));
#endif

#if CURVE == 1
    color = color / (1.0 + Luminance(color));
#elif CURVE == 2
    float bright = Luminance(color);
    color *= (1.0 + bright / Square(exposure.z)) / (1.0 + bright);
#elif CURVE == 3
    color = Filmic(color) / Filmic(exposure.z);
#elif CURVE == 4
    color = color * (2.51 * color + 0.03) / (color * (2.43 * color + 0.59) + 0.14);
#endif
    color = saturate(color);

#if ENCODING == 1
    color = pow(color + 0.00001, float3(0.4545, 0.4545, 0.4545));
#elif ENCODING == 2
    float3 curved = 1.055 * pow(color + 0.00001, float3(0.41667, 0.41667, 0.41667)) - 0.055;
    float3 dark = float3(Below(color.r, 0.0031308), Below(color.g, 0.0031308),
                         Below(color.b, 0.0031308));
    color = lerp(curved, color * 12.92, dark);
#endif
#if ENCODING > 0
    // Noise of one step of eight bits, against bands.
    DeclareNoise(noise, screen.position.xy)
    color += (noise - 0.5) / 255.0;
#endif
    return float4(color, 1.0);
}
