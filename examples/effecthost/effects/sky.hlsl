// The sky behind everything.
//
//@ axis MODEL 0 1
//@ axis SUN 0 1
//@ axis CLOUDS 0 1 2
//@ axis STARS 0 1
//@ program VertexMain vs_4_0
//@ program PixelMain ps_4_0 MODEL SUN CLOUDS STARS
//
// MODEL    0 a gradient of three colours, 1 scattered daylight after Preetham
// SUN      draws the sun's disc and the glow around it
// CLOUDS   layers of moving clouds
// STARS    shine through where the sky is dark
#include "Portable.hlsli"
#include "Camera.hlsli"

cbuffer Sky : register(b2)
{
    float4 sunDirection;   // towards the sun, in world space; the cosine of its disc's radius in w
    float4 sunColor;
    float4 zenithColor;    // after Preetham: the zenith's luminance Y and chromaticity x and y
    float4 horizonColor;   // also for clouds far from the sun
    float4 groundColor;
    float4 perezA;         // coefficients of the distribution for Y, x and y
    float4 perezB;
    float4 perezC;
    float4 perezD;
    float4 perezE;
    float4 cloudLayers;    // tiles per metre, metres per second, density, height in world space
};

Texture2D cloudTexture : register(t0);
TextureCube starTexture : register(t1);
SamplerState skySampler : register(s0);

struct Vertex
{
    float3 position : POSITION;
};

struct Fragment
{
    float4 position : SV_Position;
    float3 direction : TEXCOORD0;
};

// The sky is a box around the camera, drawn at the far end of the depth range.
Fragment VertexMain(Vertex vertex)
{
    Fragment result;
    result.position = mul(float4(vertex.position + cameraPosition.xyz, 1.0), worldToClip);
    result.position.z = result.position.w;
    result.direction = vertex.position;
    return result;
}

static const float kLeastHeight = 0.02;    // the sine below which the sky looks like its horizon
static const float kHorizonWidth = 0.125;  // sine over which ground and clouds fade in
static const float kSunEdge = 0.0002;      // width of the edge of the sun's disc, as a cosine
static const float kGlow = 0.3;            // of the sun, near it and far from it
static const float kFarGlow = 0.03;

static const float3x3 kXyzToRgb = float3x3(3.2405, -0.9693, 0.0556, -1.5371, 1.8760, -0.2040,
                                           -0.4985, 0.0416, 1.0572);

// Perez' distribution of daylight, for the cosine of the angle to the zenith, and for the angle to
// the sun in radians and its cosine.
#define DeclarePerez(result, cosTheta, gamma, cosGamma) \
    float3 result##Height = perezB.xyz / (cosTheta); \
    float3 result##Glow = perezD.xyz * (gamma); \
    float3 result = (1.0 + perezA.xyz * pow(kE, result##Height)) * \
                    (1.0 + perezC.xyz * pow(kE, result##Glow) + \
                     perezE.xyz * (cosGamma) * (cosGamma));

// The angle of a cosine from 0 to 1: a polynomial, accurate to 0.0001 radians.
#define DeclareArcCosine(result, cosine) \
    float result = 1.0 - (cosine); \
    result = pow(max(result, 0.0), 0.5) * \
             (((-0.0187293 * (cosine) + 0.0742610) * (cosine) - 0.2121144) * (cosine) + 1.5707288);

// A flat layer of clouds as seen from the camera below it.
#define AddClouds(height, size, speed) \
    { \
        float above = max(cloudLayers.w * (height) - cameraPosition.y, 1.0); \
        float2 place = cameraPosition.xz + direction.xz / upwards * above; \
        place.x += time.x * (speed) * cloudLayers.y; \
        float4 texel = cloudTexture.Sample(skySampler, place * (cloudLayers.x / (size))); \
        float cover = saturate(texel.r - 1.0 + cloudLayers.z); \
        float3 lit = lerp(horizonColor.rgb, sunColor.rgb, 0.5 + 0.5 * cosGamma); \
        color = lerp(color, lit, cover * aboveHorizon); \
    }

float4 PixelMain(Fragment fragment) : SV_Target
{
    float3 direction = normalize(fragment.direction);
    float upwards = max(direction.y, kLeastHeight);
    float cosGamma = dot(direction, sunDirection.xyz);
#if MODEL == 0
    float3 color = lerp(horizonColor.rgb, zenithColor.rgb, pow(saturate(direction.y), 0.6));
#else
    DeclareArcCosine(gamma, abs(cosGamma))
    if (cosGamma < 0.0)
    {
        gamma = kPi - gamma;
    }
    float sunHeight = max(sunDirection.y, kLeastHeight);
    DeclareArcCosine(sunFromZenith, sunHeight)
    DeclarePerez(here, upwards, gamma, cosGamma)
    DeclarePerez(overhead, 1.0, sunFromZenith, sunHeight)
    float3 Yxy = zenithColor.xyz * here / overhead;
    float3 XYZ = float3(Yxy.y, Yxy.z, 1.0 - Yxy.y - Yxy.z) * (Yxy.x / Yxy.z);
    float3 color = max(mul(XYZ, kXyzToRgb), 0.0);
#endif
    float horizon = saturate(direction.y / kHorizonWidth);
    float aboveHorizon = Smooth(horizon);
#if STARS
    float dark = saturate(1.0 - 4.0 * Luminance(color));
    color += starTexture.Sample(skySampler, direction).rgb * dark;
#endif
#if SUN
    float disc = LinearStep(sunDirection.w, sunDirection.w + kSunEdge, cosGamma);
    float towards = saturate(cosGamma);
    float glow = kGlow * pow(towards, 256.0) + kFarGlow * pow(towards, 8.0);
    color += sunColor.rgb * (disc + glow);
#endif
#if CLOUDS > 1
    AddClouds(2.0, 2.7, 1.6)
#endif
#if CLOUDS > 0
    AddClouds(1.0, 1.0, 1.0)
#endif
    // The ground hides everything below the horizon.
    float sunk = saturate(-direction.y / kHorizonWidth);
    color = lerp(color, groundColor.rgb, Smooth(sunk));
    return float4(color, 1.0);
}
