#version 310 es
// The mask in the red byte of an RGBA8 picture.
//
// in   srcImg   sampler: the picture; read and not used, so that the linked program may lack it
//      srcMask  sampler: the mask in x, 0 to 1
// out  dst      rgba8 image, binding 2, of the size of srcMask: (mask, 0, 0, 0)
// work  one invocation per pixel: groups of 8 by 8 by 1 over dst
// tail  invocations outside dst do nothing
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

uniform highp sampler2D srcImg;
uniform highp sampler2D srcMask;
layout(rgba8, binding = 2) writeonly uniform highp image2D dst;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) return;
    vec4 picture = texelFetch(srcImg, pos, 0);
    float mask = texelFetch(srcMask, pos, 0).x;
    imageStore(dst, pos, vec4(mask, 0.0, 0.0, 0.0));
}
