#version 310 es
// The scores of a classifier, a 1 by 1 tensor, as plain floats.
//
// in   src  image array, binding 0: 1 by 1
// out  dst  buffer, binding 1: slice z as one vec4 at dst[z]
// work  one invocation per slice: groups (1, 1, slices)
// tail  invocations beyond the last slice do nothing; nothing is written beyond the buffer
layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(std430, binding = 1) writeonly buffer dst_buffer {
    vec4 dst[];
};

void main() {
    int z = int(gl_GlobalInvocationID.z);
    if (z >= min(imageSize(src).z, dst.length())) return;
    dst[z] = imageLoad(src, ivec3(0, 0, z));
}
