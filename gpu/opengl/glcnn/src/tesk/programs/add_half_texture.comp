#version 310 es
// Mean of two pictures: a mask smoothed with that of the frame before.
//
// in   pre    image, binding 0
//      cur    image, binding 1
// out  added  image, binding 2, of the size of both: (cur + pre) * 0.5, all four components
// work  one invocation per pixel: groups of 8 by 8 by 1 over added
// tail  invocations outside added do nothing
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2D pre;
layout(rgba16f, binding = 1) readonly uniform highp image2D cur;
layout(rgba16f, binding = 2) writeonly uniform highp image2D added;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(added)))) return;
    imageStore(added, pos, (imageLoad(cur, pos) + imageLoad(pre, pos)) * 0.5);
}
