#version 310 es
// Planar YUV with halved colour planes (4:2:0), BT.709 at full range, to RGB.
//
// in   Ysrc, Usrc, Vsrc  sampler2D: the planes in their first component, 0 to
//      1; U and V at half the width and height
// out  dst  image2D, unit 3: (r, g, b, 0), not clamped
// map  one thread per texel of dst
// tail no test: reads outside the planes have no defined value, and
//      imageStore drops what would go outside dst
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D Ysrc;
uniform highp sampler2D Usrc;
uniform highp sampler2D Vsrc;
layout(rgba16f, binding = 3) writeonly uniform highp image2D dst;

// Column by column: what Y, U and V add to (r, g, b).
const mat3 YUV_TO_RGB = mat3(1.0, 1.0, 1.0,
                             0.0, -0.18732, 1.8556,
                             1.57481, -0.46813, 0.0);

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    ivec2 chroma = pos / 2;
    vec3 yuv = vec3(texelFetch(Ysrc, pos, 0).x,
                    texelFetch(Usrc, chroma, 0).x - 0.5,
                    texelFetch(Vsrc, chroma, 0).x - 0.5);
    imageStore(dst, pos, vec4(YUV_TO_RGB * yuv, 0.0));
}
