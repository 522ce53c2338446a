#version 310 es
// Copies a tensor of more than four channels. What lies outside src counts as
// 0.
//
// in   src  image2DArray, unit 0
// out  dst  image2DArray, unit 1: src
// map  one thread per texel of dst, z is the slice
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

void main()
{
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    imageStore(dst, pos, imageLoad(src, pos));
}
