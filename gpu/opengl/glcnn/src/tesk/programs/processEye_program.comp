#version 310 es
// Eight landmarks for each eye from the six that a face's landmarks hold.
//
// in   src  image array, binding 0: 1 by 1, two points to a slice; the left eye in slices 17 to 19,
//           the right one in 20 to 22, points 0 to 5 each
// out  dst  image array, binding 1: 1 by 1. Slices 33 to 36: the left eye's points 0, (0 + 1) / 2,
//           1, 2, 3, (3 + 4) / 2, 4, 5. Slices 37 to 40: the right eye's points 0, 1, 2,
//           (2 + 3) / 2, 3, 4, 5, (5 + 0) / 2. The other slices stay as they are.
// work  the first invocation does it all: one group
// tail  other invocations do nothing; slices that dst lacks are dropped
layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

const int LEFT_IN = 17;
const int RIGHT_IN = 20;
const int LEFT_OUT = 33;
const int RIGHT_OUT = 37;

vec4 load(int slice) {
    return imageLoad(src, ivec3(0, 0, slice));
}

void store(int slice, vec2 first, vec2 second) {
    imageStore(dst, ivec3(0, 0, slice), vec4(first, second));
}

void main() {
    if (gl_GlobalInvocationID != uvec3(0u)) return;

    vec4 p01 = load(LEFT_IN);
    vec4 p23 = load(LEFT_IN + 1);
    vec4 p45 = load(LEFT_IN + 2);
    store(LEFT_OUT, p01.xy, (p01.xy + p01.zw) * 0.5);
    store(LEFT_OUT + 1, p01.zw, p23.xy);
    store(LEFT_OUT + 2, p23.zw, (p23.zw + p45.xy) * 0.5);
    store(LEFT_OUT + 3, p45.xy, p45.zw);

    p01 = load(RIGHT_IN);
    p23 = load(RIGHT_IN + 1);
    p45 = load(RIGHT_IN + 2);
    store(RIGHT_OUT, p01.xy, p01.zw);
    store(RIGHT_OUT + 1, p23.xy, (p23.xy + p23.zw) * 0.5);
    store(RIGHT_OUT + 2, p23.zw, p45.xy);
    store(RIGHT_OUT + 3, p45.zw, (p45.zw + p01.xy) * 0.5);
}
