#version 310 es
// Takes the eye landmarks out of a face's landmarks.
//
// in   src        image array, binding 0: 1 by 1, two points to a slice
// out  dst_left   image array, binding 1: slices 0 to 2 are slices 17 to 19 of src
//      dst_right  image array, binding 2: slices 0 to 2 are slices 20 to 22 of src
// work  the first invocation does it all: one group
// tail  other invocations do nothing; slices that an output lacks are dropped
layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst_left;
layout(rgba16f, binding = 2) writeonly uniform highp image2DArray dst_right;

const int LEFT_FIRST = 17;
const int RIGHT_FIRST = 20;
const int EYE_SLICES = 3;

void main() {
    if (gl_GlobalInvocationID != uvec3(0u)) return;
    for (int s = 0; s < EYE_SLICES; ++s) {
        imageStore(dst_left, ivec3(0, 0, s), imageLoad(src, ivec3(0, 0, LEFT_FIRST + s)));
        imageStore(dst_right, ivec3(0, 0, s), imageLoad(src, ivec3(0, 0, RIGHT_FIRST + s)));
    }
}
