#version 310 es
// Second half of a reshape: plain floats as a 1 by 1 tensor.
//
// in   src  buffer, binding 0: one vec4 per slice
// out  dst  image array, binding 1: slice z is src[z], 0 beyond the end of the buffer
// work  one invocation per slice: groups of 1 by 1 by 4 over the slices
// tail  invocations outside dst do nothing
layout(local_size_x = 1, local_size_y = 1, local_size_z = 4) in;
precision highp float;

layout(std430, binding = 0) readonly buffer src_buffer {
    vec4 src[];
};
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    if (any(greaterThanEqual(pos, imageSize(dst)))) return;
    imageStore(dst, pos, pos.z < src.length() ? src[pos.z] : vec4(0.0));
}
