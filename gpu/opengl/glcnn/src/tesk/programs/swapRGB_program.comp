#version 310 es
// Swaps the first and the third colour: BGR to RGB, and back. The image
// transforms register this text under the name cvtBGR2RGB_program, too.
//
// in   src  sampler2D: picture, components 0 to 1
// out  dst  image2D, unit 1: (z, y, x, 0)
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
    imageStore(dst, pos, vec4(texelFetch(src, pos, 0).zyx, 0.0));
}
