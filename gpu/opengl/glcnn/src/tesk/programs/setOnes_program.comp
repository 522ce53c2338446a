#version 310 es
// Fills a tensor of up to four channels with ones.
//
// in   none
// out  dst  image2D, unit 1: (1, 1, 1, 1)
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    imageStore(dst, pos, vec4(1.0));
}
