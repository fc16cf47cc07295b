// HLSL in the words that every compiler of it knows, from the complete ones down to those that have
// no calls of functions, no conditional operator and few intrinsics. The effects are straight-line
// code for that reason: a choice is a mask of 0 or 1 that blends, a loop is written out with a
// macro, and what would be a function is one of the macros here or in the effect. A macro never
// hands a parameter of its own to another macro, which some of the compilers don't resolve: it
// gives it a name first.

static const float kPi = 3.14159265;

// Masks: 1 where the comparison holds, 0 where it does not.
#define AtLeast(x, edge) float((x) >= (edge))
#define Below(x, edge) float((x) < (edge))

#define Sqrt(x) pow(max(x, 0.0), 0.5)
#define Exp(x) pow(2.71828183, x)
#define Exp2(x) pow(2.0, x)
#define Frac(x) ((x) - floor(x))
#define Square(x) ((x) * (x))
#define LinearStep(low, high, x) saturate(((x) - (low)) / ((high) - (low)))
#define Smooth(t) ((t) * (t) * (3.0 - 2.0 * (t)))
#define Reflect(direction, normal) ((direction) - 2.0 * dot(direction, normal) * (normal))
#define Luminance(color) dot(color, float3(0.2126, 0.7152, 0.0722))

// Declares the sine of an angle in turns: a parabola through the zeroes and peaks, then one step
// towards the true curve. Off by less than 0.0012.
#define DeclareSine(result, turns) \
    float result = (turns) - floor((turns) + 0.5); \
    result = 8.0 * result - 16.0 * result * abs(result); \
    result = 0.225 * (result * abs(result) - result) + result;

#define DeclareCosine(result, turns) \
    float result = (turns) + 0.25 - floor((turns) + 0.75); \
    result = 8.0 * result - 16.0 * result * abs(result); \
    result = 0.225 * (result * abs(result) - result) + result;

// A pseudo-random number from 0 to 1 for a position; the same one every time.
#define DeclareNoise(result, position) \
    float result = dot(position, float2(0.06711056, 0.00583715)); \
    result = 52.9829189 * (result - floor(result)); \
    result = result - floor(result);
