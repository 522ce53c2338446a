#version 310 es
// Blurs along a row with five taps of a Gaussian of deviation 1.
//
// in   src  image2D, unit 0
// out  dst  image2D, unit 1: the weighted sum; positions are clamped into
//      src, so that the edge pixel repeats
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

const int REACH = 2;
const float KERNEL[5] = float[5](0.05448868, 0.24420134, 0.40261995, 0.24420134, 0.05448868);
const float KERNEL_SUM = 1.0;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    ivec2 last = imageSize(src) - 1;
    vec4 sum = vec4(0.0);
    for (int i = 0; i < 5; ++i) {
        sum += KERNEL[i] * imageLoad(src, clamp(pos + ivec2(i - REACH, 0), ivec2(0), last));
    }
    imageStore(dst, pos, sum / KERNEL_SUM);
}
