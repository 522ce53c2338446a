#version 310 es
// Luminance of a picture, BT.601.
//
// in   src  sampler2D: picture, components 0 to 1, RGB; what lies outside
//      counts as 0
// out  dst  image2D, unit 1: (0.299 r + 0.587 g + 0.114 b, 0, 0, 0)
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

const vec3 LUMINANCE = vec3(0.299, 0.587, 0.114);

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    bool inside = all(lessThan(pos, textureSize(src, 0)));
    vec3 rgb = inside ? texelFetch(src, pos, 0).xyz : vec3(0.0);
    imageStore(dst, pos, vec4(dot(rgb, LUMINANCE), 0.0, 0.0, 0.0));
}
