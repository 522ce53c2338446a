#version 310 es
// Lays the slices of a 1 by 1 tensor out in a plane, so that one read of one layer fetches them.
//
// in   src  image array, binding 0: 1 by 1
// out  dst  image, binding 1: texel (x, y) is slice y W + x of src, 0 where src has no such slice
// work  one invocation per texel of dst: groups of 10 by 25 by 1 over dst
// tail  invocations outside dst do nothing
layout(local_size_x = 10, local_size_y = 25, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    ivec2 size = imageSize(dst);
    if (any(greaterThanEqual(pos, size))) return;
    imageStore(dst, pos, imageLoad(src, ivec3(0, 0, pos.y * size.x + pos.x)));
}
