#version 310 es
// The output of a face network as plain floats, plane after plane (CHW).
//
// in   src  image array, binding 0: H by W
// out  dst  buffer, binding 1, 4 H W floats per slice: channel c of pixel (x, y) at
//           dst[(c H + y) W + x]; the padding channels of the last slice are written, too
// work  one invocation per texel: groups of 4 by 4 by 4 over src
// tail  invocations outside src do nothing; nothing is written beyond the buffer
layout(local_size_x = 4, local_size_y = 4, local_size_z = 4) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(std430, binding = 1) writeonly buffer dst_buffer {
    float dst[];
};

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    ivec3 size = imageSize(src);
    if (any(greaterThanEqual(pos, size))) return;
    vec4 value = imageLoad(src, pos);
    for (int c = 0; c < 4; ++c) {
        int index = (4 * pos.z + c) * size.y * size.x + pos.y * size.x + pos.x;
        if (index < dst.length()) dst[index] = value[c];
    }
}
