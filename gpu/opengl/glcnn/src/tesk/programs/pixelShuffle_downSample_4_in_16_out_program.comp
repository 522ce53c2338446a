#version 310 es
// Space to depth by 2 of up to four channels.
//
// in   src  sampler: a channel in each component
// out  dst  image array, binding 1, half as wide and high as src, one slice per channel of src:
//           slice c holds channel c of pixels (2x, 2y), (2x + 1, 2y), (2x, 2y + 1),
//           (2x + 1, 2y + 1), 0 for a pixel outside src
// work  one invocation per column and row of dst: groups of 8 by 8 by 1, z 1
// tail  invocations outside dst do nothing
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

vec4 value_at(ivec2 pos) {
    return all(lessThan(pos, textureSize(src, 0))) ? texelFetch(src, pos, 0) : vec4(0.0);
}

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    ivec3 size = imageSize(dst);
    if (any(greaterThanEqual(pos, size.xy)) || gl_GlobalInvocationID.z != 0u) return;

    ivec2 corner = 2 * pos;
    mat4 channels = transpose(mat4(value_at(corner), value_at(corner + ivec2(1, 0)),
                                   value_at(corner + ivec2(0, 1)), value_at(corner + ivec2(1, 1))));
    imageStore(dst, ivec3(pos, 0), channels[0]);
    if (size.z > 1) imageStore(dst, ivec3(pos, 1), channels[1]);
    if (size.z > 2) imageStore(dst, ivec3(pos, 2), channels[2]);
    if (size.z > 3) imageStore(dst, ivec3(pos, 3), channels[3]);
}
