#version 310 es
// Space to depth by 2 of any number of channels.
//
// in   src  sampler array
// out  dst  image array, binding 1, half as wide and high as src, one slice per channel of src:
//           slice c holds channel c of pixels (2x, 2y), (2x + 1, 2y), (2x, 2y + 1),
//           (2x + 1, 2y + 1), 0 for a pixel outside src
// work  one invocation per column and row of dst and slice of src, which fills slices 4z to
//       4z + 3: groups of 8 by 8 by 1 over (width of dst, height of dst, slices of src)
// tail  invocations outside dst or src do nothing; slices outside dst are dropped
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

uniform highp sampler2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

vec4 value_at(ivec3 pos) {
    return all(lessThan(pos, textureSize(src, 0))) ? texelFetch(src, pos, 0) : vec4(0.0);
}

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    if (any(greaterThanEqual(pos, ivec3(imageSize(dst).xy, textureSize(src, 0).z)))) return;

    ivec3 corner = ivec3(2 * pos.xy, pos.z);
    mat4 channels =
        transpose(mat4(value_at(corner), value_at(corner + ivec3(1, 0, 0)),
                       value_at(corner + ivec3(0, 1, 0)), value_at(corner + ivec3(1, 1, 0))));
    for (int c = 0; c < 4; ++c) imageStore(dst, ivec3(pos.xy, 4 * pos.z + c), channels[c]);
}
