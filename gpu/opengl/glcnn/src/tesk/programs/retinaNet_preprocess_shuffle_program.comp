#version 310 es
// Space to depth by 2: the colours of a 2 by 2 block, one pixel after the
// other, become twelve channels.
//
// in   src  sampler2D: picture, components 0 to 1
// out  dst  image2DArray, unit 1, three slices: the colours of (2x, 2y),
//      (2x+1, 2y), (2x, 2y+1), (2x+1, 2y+1) in turn; a pixel beyond the edge
//      of src counts as 0
// map  one thread per column and row of dst, which writes the three slices
// tail threads outside dst, and those of z above 0, return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

vec3 colour(ivec2 at)
{
    bool inside = all(lessThan(at, textureSize(src, 0)));
    return inside ? texelFetch(src, at, 0).xyz : vec3(0.0);
}

void main()
{
    // A client that dispatches over the slices, too, gets each texel written once.
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    if (any(greaterThanEqual(pos.xy, imageSize(dst).xy)) || pos.z > 0) {
        return;
    }
    vec3 p00 = colour(2 * pos.xy);
    vec3 p10 = colour(2 * pos.xy + ivec2(1, 0));
    vec3 p01 = colour(2 * pos.xy + ivec2(0, 1));
    vec3 p11 = colour(2 * pos.xy + ivec2(1, 1));
    imageStore(dst, ivec3(pos.xy, 0), vec4(p00, p10.x));
    imageStore(dst, ivec3(pos.xy, 1), vec4(p10.yz, p01.xy));
    imageStore(dst, ivec3(pos.xy, 2), vec4(p01.z, p11));
}
