#version 310 es
// Takes the colours of a byte picture over into half floats.
//
// in   src  sampler2D: picture, components 0 to 1, any format
// out  dst  image2D, unit 1: (x, y, z, 0)
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    imageStore(dst, pos, vec4(texelFetch(src, pos, 0).xyz, 0.0));
}
