#version 310 es
// Depth to space by 2 of 8, 12 or 16 channels to two, three or four.
//
// in   src  sampler array: one slice per channel of dst
// out  dst  image, binding 1, twice as wide and high as src: components x, y, z, w of slice c,
//           texel (x, y), are channel c at (2x, 2y), (2x + 1, 2y), (2x, 2y + 1),
//           (2x + 1, 2y + 1); channels without a slice are 0
// work  one invocation per column and row of src: groups of 8 by 8 by 1, z 1
// tail  invocations outside src do nothing; pixels outside dst are dropped
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

uniform highp sampler2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    ivec3 size = textureSize(src, 0);
    if (any(greaterThanEqual(pos, size.xy)) || gl_GlobalInvocationID.z != 0u) return;

    mat4 channels = mat4(0.0);
    channels[0] = texelFetch(src, ivec3(pos, 0), 0);
    if (size.z > 1) channels[1] = texelFetch(src, ivec3(pos, 1), 0);
    if (size.z > 2) channels[2] = texelFetch(src, ivec3(pos, 2), 0);
    if (size.z > 3) channels[3] = texelFetch(src, ivec3(pos, 3), 0);
    mat4 pixels = transpose(channels);

    ivec2 corner = 2 * pos;
    imageStore(dst, corner, pixels[0]);
    imageStore(dst, corner + ivec2(1, 0), pixels[1]);
    imageStore(dst, corner + ivec2(0, 1), pixels[2]);
    imageStore(dst, corner + ivec2(1, 1), pixels[3]);
}
