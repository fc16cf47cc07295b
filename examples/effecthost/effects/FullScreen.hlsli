// The vertex half of every pass over the whole screen.

struct ScreenVertex
{
    float2 position : POSITION;  // the corners of the screen, -1 to 1
};

struct ScreenPoint
{
    float4 position : SV_Position;
    float2 uv : TEXCOORD0;
};

ScreenPoint VertexMain(ScreenVertex vertex)
{
    ScreenPoint result;
    result.position = float4(vertex.position, 0.0, 1.0);
    result.uv = vertex.position * float2(0.5, -0.5) + float2(0.5, 0.5);
    return result;
}
