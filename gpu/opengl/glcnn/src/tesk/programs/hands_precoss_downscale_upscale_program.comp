#version 310 es
// Resizes a picture by linear sampling, brings it to byte values less their
// mean and swaps the first and the third component.
//
// in   src  sampler2D: picture, components 0 to 1
//      widthScale, heightScale  pixels of src per pixel of dst
// out  dst  image2D, unit 1: (z, y, x, w) of the sample at the corner (not
//      the centre) of the pixel, times 255, less MEAN
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 6, local_size_y = 10, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;
uniform float widthScale;
uniform float heightScale;

const float BYTE_MAX = 255.0;
const vec4 MEAN = vec4(102.9801, 115.9465, 122.7717, 0.0);

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    vec2 at = vec2(widthScale, heightScale) * vec2(pos) / vec2(textureSize(src, 0));
    vec4 v = texture(src, at) * BYTE_MAX - MEAN;
    imageStore(dst, pos, v.zyxw);
}
