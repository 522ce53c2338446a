#version 310 es
// Nearest upsampling by four along x alone: each value stands in four columns.
//
// in   src  image array, binding 0
// out  dst  image array, binding 1, four times as wide as src: columns 4x to 4x + 3 hold column x
// work  one invocation per texel of src: groups of 8 by 8 by 1 over src
// tail  invocations outside src do nothing; a column outside dst is dropped
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

const int FACTOR = 4;

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    if (any(greaterThanEqual(pos, imageSize(src)))) return;
    vec4 value = imageLoad(src, pos);
    for (int i = 0; i < FACTOR; ++i) {
        imageStore(dst, ivec3(FACTOR * pos.x + i, pos.yz), value);
    }
}
