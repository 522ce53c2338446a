#version 310 es
// First pass of a box mean in two: sums the window along a row.
//
// in   src  image2D of rgba32f, unit 0
//      filterSizeHalf  reach of the window on each side
// out  dst  image2D of rgba32f, unit 1: the sum over 2 * filterSizeHalf + 1
//      values; imageLoad gives 0 outside src
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba32f, binding = 0) readonly uniform highp image2D src;
layout(rgba32f, binding = 1) writeonly uniform highp image2D dst;
uniform int filterSizeHalf;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    vec4 sum = vec4(0.0);
    for (int i = -filterSizeHalf; i <= filterSizeHalf; ++i) {
        sum += imageLoad(src, pos + ivec2(i, 0));
    }
    imageStore(dst, pos, sum);
}
