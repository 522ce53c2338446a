#version 310 es
// The best class probability of every anchor of a detector, plane after plane (CHW).
//
// in   src  image array, binding 0: H by W, three slices of twelve class channels per anchor
// out  dst  buffer, binding 1, floats: the maximum over slices 3a to 3a + 2 of pixel (x, y) at
//           dst[(a H + y) W + x]
// work  one invocation per pixel and anchor: groups of 8 by 8 by 1 over (W, H, anchors)
// tail  invocations outside src, and those beyond the last whole anchor, do nothing; nothing is
//       written beyond the buffer
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(std430, binding = 1) writeonly buffer dst_buffer {
    float dst[];
};

const int ANCHOR_SLICES = 3;

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    ivec3 size = imageSize(src);
    if (any(greaterThanEqual(pos, ivec3(size.xy, size.z / ANCHOR_SLICES)))) return;

    vec4 best = imageLoad(src, ivec3(pos.xy, ANCHOR_SLICES * pos.z));
    for (int s = 1; s < ANCHOR_SLICES; ++s) {
        best = max(best, imageLoad(src, ivec3(pos.xy, ANCHOR_SLICES * pos.z + s)));
    }
    int index = (pos.z * size.y + pos.y) * size.x + pos.x;
    if (index < dst.length()) dst[index] = max(max(best.x, best.y), max(best.z, best.w));
}
