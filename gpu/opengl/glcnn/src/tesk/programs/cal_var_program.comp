#version 310 es
// Variances of the colours of the guide, and their covariances with each
// other.
//
// in   boxsq  image2D, unit 0: box mean of the squares
//      boxcross  image2D, unit 1: box mean of (r * g, g * b, b * r, 0)
//      n  image2D, unit 2: box mean of ones, the fall-off at the edges
//      meanip  image2D, unit 3: means (r, g, b, mask)
// out  var  image2D, unit 4: boxsq / n - mean squared
//      varcross  image2D, unit 5: boxcross / n - mean * (mean g, mean b, mean
//      r, 0): covariances rg, gb, br
// map  one thread per texel of the outputs, which are of one size
// tail threads outside var return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D boxsq;
layout(rgba16f, binding = 1) readonly uniform highp image2D boxcross;
layout(rgba16f, binding = 2) readonly uniform highp image2D n;
layout(rgba16f, binding = 3) readonly uniform highp image2D meanip;
layout(rgba16f, binding = 4) writeonly uniform highp image2D var;
layout(rgba16f, binding = 5) writeonly uniform highp image2D varcross;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(var)))) {
        return;
    }
    vec4 mean = imageLoad(meanip, pos);
    vec4 fallOff = imageLoad(n, pos);
    imageStore(var, pos, imageLoad(boxsq, pos) / fallOff - mean * mean);
    imageStore(varcross, pos, imageLoad(boxcross, pos) / fallOff - mean * vec4(mean.yzx, 0.0));
}
