#version 310 es
// Letterbox: resizes a picture by linear sampling into a band of dst and
// takes the mean colour off it.
//
// in   src  sampler2D: picture, components 0 to 1
//      widthScale, heightScale  pixels of src per pixel of dst
//      widthGreaterThanHeight  1: the band runs along y, else along x
//      begPos, endPos  first and last row or column of dst that the picture
//      covers
// out  dst  image2D, unit 1: inside the band the sample at the far corner of
//      the pixel, at most at the edge of src, less MEAN; outside 0
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;
uniform float widthScale;
uniform float heightScale;
uniform int widthGreaterThanHeight;
uniform int begPos;
uniform int endPos;

const vec4 MEAN = vec4(0.4532, 0.4348, 0.4114, 0.0);
const vec4 OUTSIDE = vec4(0.0);

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    int along = widthGreaterThanHeight == 1 ? pos.y : pos.x;
    ivec2 shift = widthGreaterThanHeight == 1 ? ivec2(0, begPos) : ivec2(begPos, 0);
    vec4 value = OUTSIDE;
    if (along >= begPos && along <= endPos) {
        vec2 at = vec2(widthScale, heightScale) * vec2(pos - shift + 1) / vec2(textureSize(src, 0));
        value = texture(src, min(at, 1.0)) - MEAN;
    }
    imageStore(dst, pos, value);
}
