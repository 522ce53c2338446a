#version 310 es
// Coefficients of the linear model mask = a . guide + b in each window, by
// ridge regression.
//
// in   var  image2D, unit 0: variances (r, g, b)
//      varcross  image2D, unit 1: covariances (rg, gb, br)
//      cov  image2D, unit 2: covariances of (r, g, b) with the mask
//      meanip  image2D, unit 3: means (r, g, b, mask)
//      eps  added to the variances: the larger, the smoother
// out  ab  image2D, unit 4: (a, b) with a = cov * inverse(sigma + eps) and b
//      = mean mask - a . mean guide. Where that matrix has no inverse a is 0,
//      and the mask becomes its mean.
// map  one thread per texel of ab
// tail threads outside ab return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D var;
layout(rgba16f, binding = 1) readonly uniform highp image2D varcross;
layout(rgba16f, binding = 2) readonly uniform highp image2D cov;
layout(rgba16f, binding = 3) readonly uniform highp image2D meanip;
layout(rgba16f, binding = 4) writeonly uniform highp image2D ab;
uniform float eps;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(ab)))) {
        return;
    }
    vec3 v = imageLoad(var, pos).xyz + eps;
    vec3 c = imageLoad(varcross, pos).xyz;
    vec4 mean = imageLoad(meanip, pos);
    mat3 sigma = mat3(v.x, c.x, c.z,
                      c.x, v.y, c.y,
                      c.z, c.y, v.z);
    vec3 a = vec3(0.0);
    if (determinant(sigma) != 0.0) {
        a = imageLoad(cov, pos).xyz * inverse(sigma);
    }
    float b = mean.w - a.x * mean.x - a.y * mean.y - a.z * mean.z;
    imageStore(ab, pos, vec4(a, b));
}
