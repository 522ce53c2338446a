#version 310 es
// exp(2 v) of every value: sizes of face boxes from their logarithms.
//
// in   src  image array, binding 0
// out  dst  image array, binding 1, of the size of src
// work  one invocation per texel: groups of 8 by 8 by 1 over dst
// tail  invocations outside dst do nothing
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

const float GAIN = 2.0;

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    if (any(greaterThanEqual(pos, imageSize(dst)))) return;
    imageStore(dst, pos, exp(imageLoad(src, pos) * GAIN));
}
