#version 310 es
// Maps byte values 0 to 255 to -1 to 127 / 128 and swaps the first and the
// third colour.
//
// in   src  image2D, unit 0: picture, components 0 to 1
// out  dst  image2D, unit 1: (vz, vy, vx, 0) of v = component * 255 / 128 - 1
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

const float BYTE_MAX = 255.0;
const float HALF_RANGE = 128.0;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    vec3 v = imageLoad(src, pos).xyz * BYTE_MAX / HALF_RANGE - 1.0;
    imageStore(dst, pos, vec4(v.zyx, 0.0));
}
