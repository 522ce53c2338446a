#version 310 es
// Multiplies the guide by the mask, both in one image.
//
// in   src  image2D, unit 0: (guide r, g, b, mask)
// out  dst  image2D, unit 1: (r * mask, g * mask, b * mask, 0)
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
    vec4 v = imageLoad(src, pos);
    imageStore(dst, pos, vec4(v.xyz * v.w, 0.0));
}
