#version 310 es
// Resizes a picture by linear sampling.
//
// in   src  sampler2D: any picture
//      widthScale, heightScale  pixels of src per pixel of dst
// out  dst  image2D, unit 1: the sample at the corner (not the centre) of the
//      pixel
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;
uniform float widthScale;
uniform float heightScale;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    vec2 at = vec2(widthScale, heightScale) * vec2(pos) / vec2(textureSize(src, 0));
    imageStore(dst, pos, texture(src, at));
}
