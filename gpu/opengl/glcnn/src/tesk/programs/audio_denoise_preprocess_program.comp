#version 310 es
// Splits a complex spectrum into magnitudes, the input of a network, and phases.
//
// in   spectrum  buffer, binding 0: H W complex values, real part at 2i, imaginary part at 2i + 1,
//                i = y W + x; values beyond the end of the buffer count as 0
// out  phase     buffer, binding 1: H W floats, the angle of value i in radians
//      dst       image, binding 2, H by W: (magnitude / 13.685064, 0, 0, 0)
// work  one invocation per pixel: groups of 8 by 8 by 1 over dst
// tail  invocations outside dst do nothing; nothing is written beyond the buffer
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(std430, binding = 0) readonly buffer spectrum_buffer {
    float spectrum[];
};
layout(std430, binding = 1) writeonly buffer phase_buffer {
    float phase[];
};
layout(rgba16f, binding = 2) writeonly uniform highp image2D dst;

const float MAGNITUDE_SCALE = 13.685064;
const float TINY = 1e-10;  // the angle of 0 is 0, not undefined

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    ivec2 size = imageSize(dst);
    if (any(greaterThanEqual(pos, size))) return;
    int i = pos.y * size.x + pos.x;
    vec2 value = 2 * i + 1 < spectrum.length() ? vec2(spectrum[2 * i], spectrum[2 * i + 1])
                                               : vec2(0.0);
    float magnitude = sqrt(value.x * value.x + value.y * value.y) / MAGNITUDE_SCALE;
    imageStore(dst, pos, vec4(magnitude, 0.0, 0.0, 0.0));
    if (i < phase.length()) phase[i] = atan(value.y, value.x + TINY);
}
