#version 310 es
// Turns a picture by a quarter: the rows of dst are the columns of src from
// the right.
//
// in   src  sampler2D: any picture
// out  dst  image2D, unit 1: src at (H - y, x), H the height of dst. Row 0 is
//      the column behind the last one of a src as wide as dst is high; what
//      lies outside src counts as 0.
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
    ivec2 turned = ivec2(imageSize(dst).y - pos.y, pos.x);
    bool inside = all(lessThan(turned, textureSize(src, 0)));
    imageStore(dst, pos, inside ? texelFetch(src, turned, 0) : vec4(0.0));
}
