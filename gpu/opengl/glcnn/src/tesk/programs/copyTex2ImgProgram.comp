#version 310 es
// Copies a texture into an image, all four components. What lies outside src
// counts as 0.
//
// in   src  sampler2D: any texture
// out  dst  image2D, unit 1: src
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
    bool inside = all(lessThan(pos, textureSize(src, 0)));
    imageStore(dst, pos, inside ? texelFetch(src, pos, 0) : vec4(0.0));
}
