#version 310 es
// Packs four one-channel images into one.
//
// in   pyramid0 to pyramid3  sampler2D, all of the size of dst: values in the
//      first component
// out  dst  image2D, unit 4: (pyramid0.x, pyramid1.x, pyramid2.x, pyramid3.x)
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D pyramid0;
uniform highp sampler2D pyramid1;
uniform highp sampler2D pyramid2;
uniform highp sampler2D pyramid3;
layout(rgba16f, binding = 4) writeonly uniform highp image2D dst;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    vec4 levels = vec4(texelFetch(pyramid0, pos, 0).x,
                       texelFetch(pyramid1, pos, 0).x,
                       texelFetch(pyramid2, pos, 0).x,
                       texelFetch(pyramid3, pos, 0).x);
    imageStore(dst, pos, levels);
}
