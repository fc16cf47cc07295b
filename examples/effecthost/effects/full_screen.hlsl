// The vertex half of every full-screen pass; the other half is in the pass's own file.
//
//@ axis BUFFERLESS 0 1
//@ program VertexMain vs_4_0 BUFFERLESS
//
// BUFFERLESS   three vertices without a buffer form one triangle that is larger than the screen;
//              the common edge of two triangles would be shaded twice
#include "FullScreen.hlsli"

struct ScreenVertex
{
#if BUFFERLESS
    uint index : SV_VertexID;
#else
    float2 position : POSITION;  // the corners of the screen, -1 to 1
#endif
};

ScreenPoint VertexMain(ScreenVertex vertex)
{
#if BUFFERLESS
    float2 corner = float2(-1.0, 1.0);
    if (vertex.index == 1)
    {
        corner.x = 3.0;
    }
    if (vertex.index == 2)
    {
        corner.y = -3.0;
    }
#else
    float2 corner = vertex.position;
#endif
    ScreenPoint result;
    result.position = float4(corner, 0.0, 1.0);
    result.uv = corner * float2(0.5, -0.5) + 0.5;
    return result;
}
