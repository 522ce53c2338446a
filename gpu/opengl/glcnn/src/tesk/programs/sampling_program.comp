#version 310 es
// Bilinear resize on pixel centres.
//
// in   src  sampler2D: any picture
//      _width_scale_factor, _height_scale_factor  size of src / size of dst
// out  dst  image2D, unit 1: the four pixels around scale * (pos + 0.5) -
//      0.5, not below 0, blended along x, then along y
// map  one thread per texel of dst
// tail no test: reads outside src have no defined value, and imageStore drops
//      what would go outside dst
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;
uniform float _width_scale_factor;
uniform float _height_scale_factor;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    ivec2 size = textureSize(src, 0);
    vec2 scale = vec2(_width_scale_factor, _height_scale_factor);
    vec2 at = max(scale * (vec2(pos) + 0.5) - 0.5, 0.0);
    ivec2 low = ivec2(at);
    vec2 weight = at - vec2(low);
    // The last row and column have no neighbour: their own value stands in.
    int right = low.x < size.x - 1 ? 1 : 0;
    int below = low.y < size.y - 1 ? 1 : 0;
    vec4 top = mix(texelFetch(src, low, 0), texelFetch(src, low + ivec2(right, 0), 0), weight.x);
    vec4 bottom = mix(texelFetch(src, low + ivec2(0, below), 0),
                      texelFetch(src, low + ivec2(right, below), 0), weight.x);
    imageStore(dst, pos, mix(top, bottom, weight.y));
}
