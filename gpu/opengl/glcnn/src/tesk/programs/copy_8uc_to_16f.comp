#version 310 es
// Copies a picture of any format into half floats, all four components.
//
// in   src  sampler2D: any picture
// out  dst  image2D, unit 1: src
// map  one thread per texel of dst
// tail no test: reads outside src have no defined value, and imageStore drops
//      what would go outside dst
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    imageStore(dst, pos, texelFetch(src, pos, 0));
}
