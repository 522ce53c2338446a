#version 310 es
// Exclusive or with one word: the same step hides data and brings them back.
//
// in   src     buffer, binding 0: ints
//      secret  the word; it comes from the caller and stands in no source
// out  dst     buffer, binding 1: ints, src[i] ^ secret
// work  one invocation per int: groups of 8
// tail  nothing is read or written beyond the buffers
layout(local_size_x = 8, local_size_y = 1, local_size_z = 1) in;

layout(std430, binding = 0) readonly buffer src_buffer {
    int src[];
};
layout(std430, binding = 1) writeonly buffer dst_buffer {
    int dst[];
};
uniform int secret;

void main() {
    int i = int(gl_GlobalInvocationID.x);
    if (i < min(src.length(), dst.length())) dst[i] = src[i] ^ secret;
}
