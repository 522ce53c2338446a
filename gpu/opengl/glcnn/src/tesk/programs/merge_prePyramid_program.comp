#version 310 es
// Takes one component of an image over and clears the others.
//
// in   prePyramid  sampler2D of the size of dst: values in the first
//      component
// out  dst  image2D, unit 1: (prePyramid.x, 0, 0, 0)
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

uniform highp sampler2D prePyramid;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    imageStore(dst, pos, vec4(texelFetch(prePyramid, pos, 0).x, 0.0, 0.0, 0.0));
}
