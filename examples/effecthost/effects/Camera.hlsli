// What every effect of the scene knows about the camera and the object that it draws. The world and
// the view are left-handed: x to the right, y up, z ahead. Vectors are rows; directions have
// length 1.

cbuffer Camera : register(b0)
{
    float4x4 worldToClip;
    float4 cameraPosition;  // in the world
    float4 screenSize;      // width and height of what is drawn to, and their reciprocals
    float4 depthRange;      // far * near, far, far - near
    float4 fogColor;        // rgb, and the density in a
    float4 time;            // seconds
};

cbuffer Object : register(b1)
{
    float4x4 objectToWorld;  // scales evenly if at all, so that normals can follow it
};

// Depth along the view's axis for what a depth buffer holds.
#define ViewDepth(depth) (depthRange.x / (depthRange.y - (depth) * depthRange.z))

// Fog whose haze grows with the square of the distance.
#define ApplyFog(color, distance) \
    float haze = fogColor.a * (distance); \
    color = lerp(fogColor.rgb, color, Exp2(-haze * haze));
