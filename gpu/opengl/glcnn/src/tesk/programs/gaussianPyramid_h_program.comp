#version 310 es
// Halves the width of an image with the five binomial taps.
//
// in   src  image2D, unit 0
// out  dst  image2D, unit 1: the weighted sum along a row around every second
//      pixel; positions are clamped into src, so that the edge pixel repeats.
//      The step is 2 for any size of dst.
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

const int REACH = 2;
const float KERNEL[5] = float[5](1.0, 4.0, 6.0, 4.0, 1.0);
const float KERNEL_SUM = 16.0;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    ivec2 last = imageSize(src) - 1;
    vec4 sum = vec4(0.0);
    for (int i = 0; i < 5; ++i) {
        ivec2 at = ivec2(2 * pos.x - REACH + i, pos.y);
        sum += KERNEL[i] * imageLoad(src, clamp(at, ivec2(0), last));
    }
    imageStore(dst, pos, sum / KERNEL_SUM);
}
