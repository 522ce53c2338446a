#version 310 es
// Warps a face by linear sampling, through an affine map in coordinates from
// -1 to 1 that a network has put out.
//
// in   src  sampler2D: any picture
//      affine_image  image2DArray, unit 1: the map row by row in the first
//      six channels of pixel (0, 0)
// out  dst  image2D, unit 2: the sample at the mapped position, 0 beyond the
//      border of src. A dst one pixel wide or high has no such coordinates:
//      it reads at -1.
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) readonly uniform highp image2DArray affine_image;
layout(rgba16f, binding = 2) writeonly uniform highp image2D dst;

// Fixed: the map counts 96 pixels, whatever the sizes of src and dst.
const float CELLS = 95.0;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    vec4 first = imageLoad(affine_image, ivec3(0, 0, 0));
    vec4 second = imageLoad(affine_image, ivec3(0, 0, 1));
    vec3 row0 = first.xyz;
    vec3 row1 = vec3(first.w, second.xy);
    vec2 last = vec2(max(imageSize(dst) - 1, 1));
    vec3 p = vec3(vec2(pos) * 2.0 / last - 1.0, 1.0);
    vec2 t = vec2(dot(row0, p), dot(row1, p)) * 0.5 + 0.5;
    t = (t * CELLS + 0.5) / CELLS;
    imageStore(dst, pos, texture(src, t));
}
