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
    float4 sunDirection;   // towards the sun; the size of its disc in w
    float4 sunColor;
    float4 zenithColor;    // Preetham: the zenith's luminance and chromaticity
    float4 horizonColor;
    float4 groundColor;
    float4 perezA;         // coefficients of the distribution for Y, x and y
    float4 perezB;
    float4 perezC;
    float4 perezD;
    float4 perezE;
    float4 cloudLayers;    // tiling, speed, density, height
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

// Perez' distribution of daylight. gammaRadians is the angle to the sun.
#define DeclarePerez(result, cosTheta, angle, cosAngle) \
    float3 result##Height = perezB.xyz / (cosTheta); \
    float3 result##Glow = perezD.xyz * (angle); \
    float3 result = (1.0 + perezA.xyz * pow(2.71828183, result##Height)) * \
                    (1.0 + perezC.xyz * pow(2.71828183, result##Glow) + \
                     perezE.xyz * (cosAngle) * (cosAngle));

// The angle of a cosine from 0 to 1: a polynomial, within 0.0001 radians.
#define ArcCosine(x) \
    ((((-0.0187293 * (x) + 0.0742610) * (x) - 0.2121144) * (x) + 1.5707288) * \
     pow(max(1.0 - (x), 0.0), 0.5))

#define AddClouds(scale, speed) \
    { \
        float2 drift = float2(time.x * (speed) * cloudLayers.y, 0.0); \
        float2 place = up.xz / up.y * (scale) * cloudLayers.x + drift; \
        float cover = saturate(cloudTexture.Sample(skySampler, place).r - 1.0 + cloudLayers.z); \
        float3 lit = lerp(horizonColor.rgb, sunColor.rgb, 0.5 + 0.5 * cosGamma); \
        color = lerp(color, lit, cover * Smooth(saturate(direction.y * 4.0))); \
    }

float4 PixelMain(Fragment fragment) : SV_Target
{
    float3 direction = normalize(fragment.direction);
    float3 up = float3(direction.x, max(direction.y, 0.02), direction.z);
    float cosGamma = dot(direction, sunDirection.xyz);
#if MODEL == 0
    float height = direction.y;
    float3 color = lerp(horizonColor.rgb, zenithColor.rgb, pow(saturate(height) + 0.0001, 0.6));
    color = lerp(color, groundColor.rgb, Smooth(saturate(-height * 8.0)));
#else
    float sunHeight = max(sunDirection.y, 0.02);
    float fromSun = ArcCosine(abs(cosGamma));
    fromSun = lerp(fromSun, kPi - fromSun, Below(cosGamma, 0.0));
    float sunFromZenith = ArcCosine(sunHeight);
    DeclarePerez(here, up.y, fromSun, cosGamma)
    DeclarePerez(overhead, 1.0, sunFromZenith, sunHeight)
    float3 Yxy = zenithColor.xyz * here / overhead;
    float3 XYZ = float3(Yxy.y * Yxy.x / Yxy.z, Yxy.x, (1.0 - Yxy.y - Yxy.z) * Yxy.x / Yxy.z);
    float3 color = float3(dot(XYZ, float3(3.2405, -1.5371, -0.4985)),
                          dot(XYZ, float3(-0.9693, 1.8760, 0.0416)),
                          dot(XYZ, float3(0.0556, -0.2040, 1.0572)));
    color = max(color, float3(0.0, 0.0, 0.0));
#endif
#if STARS
    float dark = saturate(1.0 - 4.0 * Luminance(color));
    color += starTexture.Sample(skySampler, direction).rgb * dark * saturate(direction.y * 4.0);
#endif
#if SUN
    float disc = LinearStep(sunDirection.w, sunDirection.w + 0.0002, cosGamma);
    float towards = saturate(cosGamma) + 0.0001;
    float glow = pow(towards, 256.0) + 0.1 * pow(towards, 8.0);
    color += sunColor.rgb * (disc + 0.3 * glow);
#endif
#if CLOUDS > 0
    AddClouds(1.0, 1.0)
#endif
#if CLOUDS > 1
    AddClouds(0.37, 1.6)
#endif
    return float4(color, 1.0);
}
