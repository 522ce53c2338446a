#version 310 es
// Warps a picture by linear sampling, through an affine map from pixels of
// dst to pixels of src.
//
// in   src  sampler2D: any picture
//      affine_params  the map row by row: src = (a0 x + a1 y + a2, a3 x + a4
//      y + a5)
// out  dst  image2D, unit 1: the sample at the mapped position, 0 beyond the
//      border of src
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;
uniform float affine_params[6];

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    vec3 p = vec3(vec2(pos), 1.0);
    vec3 row0 = vec3(affine_params[0], affine_params[1], affine_params[2]);
    vec3 row1 = vec3(affine_params[3], affine_params[4], affine_params[5]);
    vec2 at = vec2(dot(row0, p), dot(row1, p)) / vec2(textureSize(src, 0));
    imageStore(dst, pos, texture(src, at));
}
