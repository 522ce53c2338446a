#version 310 es
// Square letterbox of a crop: the longer side fills dst, bands of 0 lie along
// the shorter one. Brings colours to byte values less their mean, scaled,
// with the first and the third swapped.
//
// in   src  sampler2D: picture, components 0 to 1
//      src_width, src_height  size of the crop in pixels
//      x_start, y_start  pixel of src at the first pixel of dst: the band
//      counts as part of the square
// out  dst  image2D, unit 1: inside ((z, y, x) * 255 - MEAN) * SCALE, 0 of
//      the nearest pixel towards 0; in the bands 0. The band is tested
//      strictly: the row (or column) at its width belongs to it, so that row
//      0 is 0 even for a square crop. What lies outside src counts as 0
//      before the mean is taken off.
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;
uniform float src_width;
uniform float src_height;
uniform float x_start;
uniform float y_start;

const float BYTE_MAX = 255.0;
const vec3 MEAN = vec3(123.675, 116.28, 103.52);
const float SCALE = 0.017;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    ivec2 size = imageSize(dst);
    bool wide = src_width >= src_height;
    float longer = wide ? src_width : src_height;
    float spare = wide ? src_width - src_height : src_height - src_width;
    int extent = wide ? size.x : size.y;
    int band = int(spare / longer * float(extent) / 2.0);
    int along = wide ? pos.y : pos.x;
    int end = (wide ? size.y : size.x) - band;
    vec4 value = vec4(0.0);
    if (along > band && along < end) {
        ivec2 at = ivec2(vec2(pos) / vec2(size) * longer + vec2(x_start, y_start));
        bool inside = all(greaterThanEqual(at, ivec2(0))) && all(lessThan(at, textureSize(src, 0)));
        vec3 v = inside ? texelFetch(src, at, 0).xyz : vec3(0.0);
        value.xyz = ((v * BYTE_MAX - MEAN) * SCALE).zyx;
    }
    imageStore(dst, pos, value);
}
