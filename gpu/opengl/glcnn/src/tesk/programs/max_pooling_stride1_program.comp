#version 310 es
// Maximum over a window of 2 by 2 at stride 1, size kept.
//
// in   src  image array, binding 0
// out  dst  image array, binding 1, of the size of src: the maximum over columns x and x + 1, rows
//           y and y + 1. Beyond the last column and row the window sees 0, which image loads
//           give there: a negative value at those two edges comes out as 0.
// work  one invocation per texel: groups of 11 by 11 by 1 over dst
// tail  invocations outside dst do nothing
layout(local_size_x = 11, local_size_y = 11, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    if (any(greaterThanEqual(pos, imageSize(dst)))) return;
    vec4 upper = max(imageLoad(src, pos), imageLoad(src, pos + ivec3(1, 0, 0)));
    vec4 lower = max(imageLoad(src, pos + ivec3(0, 1, 0)), imageLoad(src, pos + ivec3(1, 1, 0)));
    imageStore(dst, pos, max(upper, lower));
}
