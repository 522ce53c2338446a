#version 310 es
// Puts the eyes' landmarks, eight points each, in between a face's landmarks.
//
// in   src_left   image array, binding 0: 1 by 1, 4 slices of two points
//      src_right  image array, binding 1: 1 by 1, 4 slices of two points
//      src_main   image array, binding 2: 1 by 1
// out  dst        image array, binding 3: 1 by 1, eight slices more than src_main: slices below 33
//                 from src_main, 33 to 36 from src_left, 37 to 40 from src_right, the others from
//                 slice z - 8 of src_main
// work  one invocation per slice of dst: groups (1, 1, slices)
// tail  invocations beyond the last slice do nothing
layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src_left;
layout(rgba16f, binding = 1) readonly uniform highp image2DArray src_right;
layout(rgba16f, binding = 2) readonly uniform highp image2DArray src_main;
layout(rgba16f, binding = 3) writeonly uniform highp image2DArray dst;

const int LEFT_FIRST = 33;
const int RIGHT_FIRST = 37;
const int REST_FIRST = 41;

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    if (any(greaterThanEqual(pos, imageSize(dst)))) return;
    vec4 value;
    if (pos.z < LEFT_FIRST) {
        value = imageLoad(src_main, pos);
    } else if (pos.z < RIGHT_FIRST) {
        value = imageLoad(src_left, ivec3(pos.xy, pos.z - LEFT_FIRST));
    } else if (pos.z < REST_FIRST) {
        value = imageLoad(src_right, ivec3(pos.xy, pos.z - RIGHT_FIRST));
    } else {
        value = imageLoad(src_main, ivec3(pos.xy, pos.z - (REST_FIRST - LEFT_FIRST)));
    }
    imageStore(dst, pos, value);
}
