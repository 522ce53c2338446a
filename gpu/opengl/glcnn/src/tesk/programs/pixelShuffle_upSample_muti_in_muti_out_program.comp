#version 310 es
// Depth to space by 2 of any number of channels.
//
// in   src  sampler array: one slice per channel of dst
// out  dst  image array, binding 1, twice as wide and high as src: components x, y, z, w of slice
//           c, texel (x, y), are channel c at (2x, 2y), (2x + 1, 2y), (2x, 2y + 1),
//           (2x + 1, 2y + 1); channels without a slice are 0
// work  one invocation per column and row of src and slice of dst, from slices 4z to 4z + 3:
//       groups of 8 by 8 by 1 over (width of src, height of src, slices of dst)
// tail  invocations outside src or dst do nothing; pixels outside dst are dropped
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

uniform highp sampler2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    ivec3 size = textureSize(src, 0);
    if (any(greaterThanEqual(pos, ivec3(size.xy, imageSize(dst).z)))) return;

    mat4 channels = mat4(0.0);
    for (int c = 0; c < 4; ++c) {
        int slice = 4 * pos.z + c;
        if (slice < size.z) channels[c] = texelFetch(src, ivec3(pos.xy, slice), 0);
    }
    mat4 pixels = transpose(channels);

    ivec3 corner = ivec3(2 * pos.xy, pos.z);
    imageStore(dst, corner, pixels[0]);
    imageStore(dst, corner + ivec3(1, 0, 0), pixels[1]);
    imageStore(dst, corner + ivec3(0, 1, 0), pixels[2]);
    imageStore(dst, corner + ivec3(1, 1, 0), pixels[3]);
}
