// What every effect of the scene knows about the camera and the object that it draws.

cbuffer Camera : register(b0)
{
    float4x4 worldToClip;
    float4 cameraPosition;  // in the world
    float4 screenSize;      // width, height and their reciprocals
    float4 depthRange;      // near, far, far * near, far - near
    float4 fogColor;        // rgb, and the density in a
    float4 time;            // seconds, seconds of the last frame
};

cbuffer Object : register(b1)
{
    float4x4 objectToWorld;
};

// Distance from the camera for what a depth buffer holds.
#define ViewDepth(depth) (depthRange.z / (depthRange.y - (depth) * depthRange.w))

// Fog that thickens with the square of the distance.
#define ApplyFog(color, distance) \
    float haze = fogColor.a * (distance); \
    color = lerp(fogColor.rgb, color, Exp2(-haze * haze));
