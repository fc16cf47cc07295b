// The subset of HLSL that the effects use, and short names for what it lacks. Two compilers must
// accept them: shaderc, and d3dcompiler_47 on Windows, which may be the one built into Wine. To
// suit Wine's (tested with Wine 8), the effects avoid
//
// - functions other than the entry points: it has no calls. Macros replace them; those whose names
//   begin with Declare declare a variable.
// - loops and early returns: it accepts them but omits break and return, so that a loop never ends.
//   Macros written out replace loops.
// - variable indices into arrays, the conditional operator, attributes such as [unroll], discard
//   and clip
// - SampleLevel, SampleGrad and ddx. A Sample needs derivatives from the neighbouring pixels, so
//   none is inside a branch; a branch chooses what is sampled after it.
// - sqrt, rsqrt, exp, log, frac, step, smoothstep, sign, reflect, sin, cos and acos: see below
// - a macro that passes its own parameter to another macro: it gives it a name first.
//
// Branches, matrices, and abs, cross, dot, floor, length, lerp, max, normalize, pow and saturate
// work everywhere.

static const float kPi = 3.14159265;
static const float kE = 2.71828183;
static const float3 kLuminance = float3(0.2126, 0.7152, 0.0722);  // of linear red, green and blue

#define Sqrt(x) pow(max(x, 0.0), 0.5)
#define Exp(x) pow(kE, x)
#define Exp2(x) pow(2.0, x)
#define Frac(x) ((x) - floor(x))
#define Square(x) ((x) * (x))
#define LinearStep(low, high, x) saturate(((x) - (low)) / ((high) - (low)))
#define Smooth(t) ((t) * (t) * (3.0 - 2.0 * (t)))
#define Reflect(direction, normal) ((direction) - 2.0 * dot(direction, normal) * (normal))
#define Luminance(color) dot(color, kLuminance)

// Masks: 1 where the comparison holds, 0 where it does not, for every component.
#define AtLeast(x, edge) float((x) >= (edge))
#define Below(x, edge) float((x) < (edge))

// Fresnel reflectance after Schlick, from the reflectance at normal incidence.
#define Fresnel(reflectance, cosine) \
    ((reflectance) + (1.0 - (reflectance)) * pow(saturate(1.0 - (cosine)), 5.0))

// Declares the sine of an angle in turns: a parabola through the zeroes and peaks, then one step
// towards the true curve. The error is below 0.0012.
#define DeclareSine(result, turns) \
    float result = (turns) - floor((turns) + 0.5); \
    result = 8.0 * result - 16.0 * result * abs(result); \
    result = 0.225 * (result * abs(result) - result) + result;

#define DeclareCosine(result, turns) \
    float result = (turns) + 0.25 - floor((turns) + 0.75); \
    result = 8.0 * result - 16.0 * result * abs(result); \
    result = 0.225 * (result * abs(result) - result) + result;

// Declares interleaved gradient noise: from 0 to 1, always the same for a pixel.
#define DeclareNoise(result, pixel) \
    float result = dot(pixel, float2(0.06711056, 0.00583715)); \
    result = 52.9829189 * (result - floor(result)); \
    result = result - floor(result);
