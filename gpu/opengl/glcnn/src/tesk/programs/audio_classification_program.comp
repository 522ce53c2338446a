#version 310 es
// One plane of floats, such as a spectrogram, into the input of a network.
//
// in   src  buffer, binding 0: H W floats, row by row
// out  dst  image, binding 1, H by W: (src[y W + x], 0, 0, 0), 0 beyond the end of the buffer
// work  one invocation per pixel: groups of 8 by 8 by 1 over dst
// tail  invocations outside dst do nothing
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(std430, binding = 0) readonly buffer src_buffer {
    float src[];
};
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    ivec2 size = imageSize(dst);
    if (any(greaterThanEqual(pos, size))) return;
    int index = pos.y * size.x + pos.x;
    float value = index < src.length() ? src[index] : 0.0;
    imageStore(dst, pos, vec4(value, 0.0, 0.0, 0.0));
}
