#version 310 es
// Downsamples the guide and the mask of the guided filter into one image.
//
// in   guidedImg  sampler2D: guide, RGB
//      filterImg  sampler2D: mask in its first component
//      sampleRadio  pixels of the guide per pixel of dst, both ways
// out  dst  image2D, unit 2: (guide r, g, b, mask), both sampled linearly at
//      sampleRadio * pos / size of the guide: the corner, not the centre, of
//      the pixel
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D guidedImg;
uniform highp sampler2D filterImg;
layout(rgba16f, binding = 2) writeonly uniform highp image2D dst;
uniform float sampleRadio;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    vec2 at = sampleRadio * vec2(pos) / vec2(textureSize(guidedImg, 0));
    imageStore(dst, pos, vec4(texture(guidedImg, at).xyz, texture(filterImg, at).x));
}
