#version 310 es
// The input of a fully connected network, a 1 by 1 tensor, from a buffer.
//
// in   src  buffer, binding 0: slice z as one vec4 at src[z]
// out  dst  image array, binding 1: 1 by 1
// work  one invocation per slice: groups (1, 1, slices)
// tail  invocations beyond the last slice or the end of the buffer do nothing
layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;
precision highp float;

layout(std430, binding = 0) readonly buffer src_buffer {
    vec4 src[];
};
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

void main() {
    int z = int(gl_GlobalInvocationID.z);
    if (z >= min(imageSize(dst).z, src.length())) return;
    imageStore(dst, ivec3(0, 0, z), src[z]);
}
