#version 310 es
// Maps 0 to 1 to -1 to 1 and swaps the first and the third colour.
//
// in   src  image2D, unit 0: picture, components 0 to 1
// out  dst  image2D, unit 1: ((z, y, x) - 0.5) * 2, 0
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    imageStore(dst, pos, vec4((imageLoad(src, pos).zyx - 0.5) * 2.0, 0.0));
}
