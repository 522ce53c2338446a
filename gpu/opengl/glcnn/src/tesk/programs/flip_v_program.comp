#version 310 es
// Mirrors a picture top to bottom.
//
// in   src  sampler2D: any picture
// out  dst  image2D, unit 1: dst(x, H - y - 1) = src(x, y), H the height of
//      dst
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
    ivec2 size = imageSize(dst);
    imageStore(dst, ivec2(pos.x, size.y - pos.y - 1), texelFetch(src, pos, 0));
}
