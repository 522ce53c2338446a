#version 310 es
// A tensor as plain floats, pixel after pixel (HWC).
//
// in   src  image array, binding 0: H by W, Z slices
// out  dst  buffer, binding 1, one vec4 per texel: slice z of pixel (x, y) at dst[(y W + x) Z + z];
//           the padding channels of the last slice are written, too
// work  one invocation per texel: groups of 8 by 8 by 1 over src
// tail  invocations outside src do nothing; nothing is written beyond the buffer
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(std430, binding = 1) writeonly buffer dst_buffer {
    vec4 dst[];
};

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    ivec3 size = imageSize(src);
    if (any(greaterThanEqual(pos, size))) return;
    int index = (pos.y * size.x + pos.x) * size.z + pos.z;
    if (index < dst.length()) dst[index] = imageLoad(src, pos);
}
