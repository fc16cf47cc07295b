// The camera and the object being drawn, for every effect of the scene. World and view space are
// left-handed: x to the right, y up, z ahead. Vectors are rows; directions have length 1.

cbuffer Camera : register(b0)
{
    float4x4 worldToClip;
    float4 cameraPosition;  // in world space
    float4 screenSize;      // width and height of the render target, and their reciprocals
    float4 depthRange;      // far * near, far, far - near
    float4 fogColor;        // rgb, and the density in a
    float4 time;            // seconds
};

cbuffer Object : register(b1)
{
    float4x4 objectToWorld;  // scales only uniformly, so that it can transform normals
};

// Depth along the view's axis for a value of the depth buffer.
#define ViewDepth(depth) (depthRange.x / (depthRange.y - (depth) * depthRange.z))

// Fog that grows with the square of the distance.
#define ApplyFog(color, distance) \
    float haze = fogColor.a * (distance); \
    color = lerp(fogColor.rgb, color, Exp2(-haze * haze));
