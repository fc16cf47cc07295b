// Maps light to the range of a screen.
//
//@ axis CURVE 0 1 2 3 4
//@ axis ADAPT 0 1
//@ axis ENCODING 0 1 2
//@ axis VIGNETTE 0 1
//@ axis METERING 0 1 2
//@ program LuminancePixelMain ps_4_0 METERING
//@ program PixelMain ps_4_0 CURVE ADAPT ENCODING VIGNETTE
//
// CURVE      0 clips, 1 Reinhard, 2 Reinhard with a white point, 3 filmic after Hable, 4 ACES after
//            Narkowicz
// ADAPT      exposure from the measured luminance instead of a constant
// ENCODING   0 linear, 1 gamma 2.2, 2 sRGB
// VIGNETTE   darker corners
// METERING   0 averages the previous level; 1 and 2 are the first level, which measures the
//            luminance: 1 evenly over the whole picture, 2 with more weight in its middle
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

static const float kDarkest = 0.001;  // luminance below which the exposure stops growing

// The offset is in pixels of the render target.
#define SceneAt(x, y) sceneTexture.Sample(smoothSampler, screen.uv + screenSize.zw * float2(x, y))

// One level of the chain that shrinks the picture to a single pixel. Each level is a quarter as
// wide and high as the previous one, and four fetches between the pixels read all sixteen. Alpha is
// the weight that the other channels are multiplied by.
float4 LuminancePixelMain(ScreenPoint screen) : SV_Target
{
    float4 average = 0.25 * (SceneAt(-0.25, -0.25) + SceneAt(0.25, -0.25) +
                             SceneAt(-0.25, 0.25) + SceneAt(0.25, 0.25));
#if METERING > 0
    float bright = Luminance(average.rgb);
    float weight = 1.0;
#if METERING == 2
    float away = saturate(length(ClipFromUv(screen.uv)));
    weight = 1.0 - Smooth(away);
#endif
    average = float4(bright, bright, bright, 1.0) * weight;
#endif
    return average;
}

// Hable's filmic curve before it is scaled to its white point, by his names: strength of the
// shoulder and of the linear part, angle of the linear part, strength, numerator and denominator of
// the toe.
static const float A = 0.15;
static const float B = 0.50;
static const float C = 0.10;
static const float D = 0.20;
static const float E = 0.02;
static const float F = 0.30;
#define Filmic(x) \
    (((x) * (A * (x) + C * B) + D * E) / ((x) * (A * (x) + B) + D * F) - E / F)

float4 PixelMain(ScreenPoint screen) : SV_Target
{
    float3 color = sceneTexture.Sample(smoothSampler, screen.uv).rgb;
#if ADAPT
    float4 measured = luminanceTexture.Load(int3(0, 0, 0));
    color *= exposure.y / max(measured.r / measured.a, kDarkest);
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
    color = pow(color, 1.0 / 2.2);
#elif ENCODING == 2
    float3 curved = 1.055 * pow(color, 1.0 / 2.4) - 0.055;
    float3 dark = float3(color < 0.0031308);
    color = lerp(curved, color * 12.92, dark);
#endif
#if ENCODING > 0
    // Noise of one 8-bit step prevents bands.
    DeclareNoise(noise, screen.position.xy)
    color += (noise - 0.5) / 255.0;
#endif
    return float4(color, 1.0);
}
