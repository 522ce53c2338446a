#version 310 es
// Products of the colours of the guide with each other.
//
// in   src  image2D, unit 0: (guide r, g, b, mask)
// out  dst_rr_gg_bb  image2D, unit 1: the squares of all four components
//      dst_rg_gb_br  image2D, unit 2: (r * g, g * b, b * r, 0)
// map  one thread per texel of the outputs, which are of one size
// tail threads outside dst_rr_gg_bb return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst_rr_gg_bb;
layout(rgba16f, binding = 2) writeonly uniform highp image2D dst_rg_gb_br;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst_rr_gg_bb)))) {
        return;
    }
    vec4 v = imageLoad(src, pos);
    imageStore(dst_rr_gg_bb, pos, v * v);
    imageStore(dst_rg_gb_br, pos, vec4(v.xyz * v.yzx, 0.0));
}
