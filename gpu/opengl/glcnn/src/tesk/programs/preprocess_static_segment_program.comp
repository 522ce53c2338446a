#version 310 es
// Takes the mean colour off a picture and off its background, and packs both
// into six channels.
//
// in   src  image2D, unit 0: picture, components 0 to 1
//      bg   image2D, unit 1: background, of the same kind and size
// out  dst  image2DArray, unit 2, two slices: (sr, sg, sb, br) and (bg, bb,
//      0, 0), s for the picture and b for the background, each less MEAN
// map  one thread per column and row of dst, which writes both slices
// tail threads outside dst, and those of z above 0, return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 1) readonly uniform highp image2D bg;
layout(rgba16f, binding = 2) writeonly uniform highp image2DArray dst;

const vec3 MEAN = vec3(0.485, 0.456, 0.406);

void main()
{
    // A client that dispatches over the slices, too, gets each texel written once.
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    if (any(greaterThanEqual(pos.xy, imageSize(dst).xy)) || pos.z > 0) {
        return;
    }
    vec3 s = imageLoad(src, pos.xy).xyz - MEAN;
    vec3 b = imageLoad(bg, pos.xy).xyz - MEAN;
    imageStore(dst, ivec3(pos.xy, 0), vec4(s, b.x));
    imageStore(dst, ivec3(pos.xy, 1), vec4(b.yz, 0.0, 0.0));
}
