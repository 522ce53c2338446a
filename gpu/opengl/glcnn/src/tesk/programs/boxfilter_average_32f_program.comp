#version 310 es
// Divides the sums of a box filter by the number of values in them.
//
// in   src  image2D of rgba32f, unit 0: sums
//      filterSize  values per sum
// out  dst  image2D of rgba32f, unit 1: src / filterSize
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba32f, binding = 0) readonly uniform highp image2D src;
layout(rgba32f, binding = 1) writeonly uniform highp image2D dst;
uniform int filterSize;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    imageStore(dst, pos, imageLoad(src, pos) / float(filterSize));
}
