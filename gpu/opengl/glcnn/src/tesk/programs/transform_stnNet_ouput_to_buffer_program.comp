#version 310 es
// A 1 by 1 tensor as plain floats.
//
// in   src  image array, binding 0: 1 by 1
// out  dst  buffer, binding 1, 4 floats per slice: channel c at dst[c]
// work  one invocation per slice: groups (1, 1, slices)
// tail  invocations beyond the last slice do nothing; nothing is written beyond the buffer
layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(std430, binding = 1) writeonly buffer dst_buffer {
    float dst[];
};

void main() {
    int z = int(gl_GlobalInvocationID.z);
    if (z >= imageSize(src).z) return;
    vec4 value = imageLoad(src, ivec3(0, 0, z));
    for (int c = 0; c < 4; ++c) {
        int index = 4 * z + c;
        if (index < dst.length()) dst[index] = value[c];
    }
}
