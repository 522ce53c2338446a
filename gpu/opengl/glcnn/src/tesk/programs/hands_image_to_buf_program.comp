#version 310 es
// The output of a hand network as plain floats (CHW), one of several tensors in a buffer.
//
// in   src           image array, binding 0: H by W
//      bufferOffset  where in dst the tensor begins, in floats
// out  dst           buffer, binding 1, 4 H W floats per slice: channel c of pixel (x, y) at
//                    dst[bufferOffset + (c H + y) W + x]; the padding channels of the last slice
//                    are written, too
// work  one invocation per texel: groups of 6 by 10 by 2 over src
// tail  invocations outside src do nothing; nothing is written outside the buffer
layout(local_size_x = 6, local_size_y = 10, local_size_z = 2) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(std430, binding = 1) writeonly buffer dst_buffer {
    float dst[];
};
uniform int bufferOffset;

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    ivec3 size = imageSize(src);
    if (any(greaterThanEqual(pos, size))) return;
    vec4 value = imageLoad(src, pos);
    int plane = size.x * size.y;
    int first = bufferOffset + 4 * pos.z * plane + pos.y * size.x + pos.x;
    for (int c = 0; c < 4; ++c) {
        int index = first + c * plane;
        if (index >= 0 && index < dst.length()) dst[index] = value[c];
    }
}
