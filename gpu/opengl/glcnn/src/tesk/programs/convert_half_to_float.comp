#version 310 es
// Unpacks half floats, two to a word.
//
// in   src  buffer, binding 0: uints, the first half float in the low 16 bits
// out  dst  buffer, binding 1: floats, those of src[i] at dst[2i] and dst[2i + 1]
// work  one invocation per word of src: groups of 8
// tail  nothing is read or written beyond the buffers
layout(local_size_x = 8, local_size_y = 1, local_size_z = 1) in;
precision highp float;

layout(std430, binding = 0) readonly buffer src_buffer {
    uint src[];
};
layout(std430, binding = 1) writeonly buffer dst_buffer {
    float dst[];
};

void main() {
    int i = int(gl_GlobalInvocationID.x);
    if (i >= src.length()) return;
    vec2 value = unpackHalf2x16(src[i]);
    if (2 * i < dst.length()) dst[2 * i] = value.x;
    if (2 * i + 1 < dst.length()) dst[2 * i + 1] = value.y;
}
