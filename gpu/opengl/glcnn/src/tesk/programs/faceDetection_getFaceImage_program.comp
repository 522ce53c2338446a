#version 310 es
// Crops a face by linear sampling, maps 0 to 1 to -1 to 1 and swaps the first
// and the third colour.
//
// in   src  sampler2D: picture, components 0 to 1
//      src_w, src_h  size of src in pixels
//      faceImage_w, faceImage_h, x_start, y_start  the crop, in pixels of
//      src; it may reach outside
// out  dst  image2D, unit 1: ((z, y, x) - 0.5) * 2, 0 of the sample at the
//      far corner of the pixel; a position whose whole part is below 1 or
//      above the size of src counts as OUTSIDE
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;
uniform int src_w;
uniform int src_h;
uniform int faceImage_w;
uniform int faceImage_h;
uniform int x_start;
uniform int y_start;

const float OUTSIDE = 0.5;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    vec2 srcSize = vec2(ivec2(src_w, src_h));
    vec2 cropSize = vec2(ivec2(faceImage_w, faceImage_h));
    vec2 at = vec2(pos + 1) / vec2(imageSize(dst)) * cropSize + vec2(ivec2(x_start, y_start));
    ivec2 whole = ivec2(at);
    bool outside = any(lessThan(whole, ivec2(1))) || any(greaterThan(whole, ivec2(src_w, src_h)));
    vec3 v = outside ? vec3(OUTSIDE) : texture(src, at / srcSize).xyz;
    imageStore(dst, pos, vec4((v.zyx - 0.5) * 2.0, 0.0));
}
