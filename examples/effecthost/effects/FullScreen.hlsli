// The output of full_screen.hlsl, the vertex half of every full-screen pass.

struct ScreenPoint
{
    float4 position : SV_Position;
    float2 uv : TEXCOORD0;  // 0 to 1, from the top left corner
};

#define ClipFromUv(uv) ((uv) * float2(2.0, -2.0) + float2(-1.0, 1.0))
