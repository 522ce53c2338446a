#version 310 es
// Sums the window of a box along a row; a box mean in three passes is h_sum,
// v_sum and boxfilter_average with filterSize = (2 * filterSizeHalf + 1)
// squared.
//
// in   src  image2D of rgba16f, unit 0
//      filterSizeHalf  reach of the window on each side
// out  dst  image2D of rgba16f, unit 1: the sum over 2 * filterSizeHalf + 1
//      values; what lies outside src counts as 0 and is not read
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;
uniform int filterSizeHalf;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    int first = max(pos.x - filterSizeHalf, 0);
    int last = min(pos.x + filterSizeHalf, imageSize(src).x - 1);
    vec4 sum = vec4(0.0);
    for (int i = first; i <= last; ++i) {
        sum += imageLoad(src, ivec2(i, pos.y));
    }
    imageStore(dst, pos, sum);
}
