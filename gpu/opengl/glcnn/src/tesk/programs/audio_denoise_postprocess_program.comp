#version 310 es
// A complex spectrum from magnitudes, the mask that a network gave for them, and phases.
//
// in   src0      image, binding 0, H by W: the magnitude or the mask in x
//      src1      image, binding 1, H by W: the other one in x
//      phase     buffer, binding 2: H W floats in radians, row by row; 0 beyond the end
// out  spectrum  buffer, binding 3: H W complex values m (cos phase, sin phase) at 2i and 2i + 1,
//                i = y W + x, with m = src0 src1 13.685064
// work  one invocation per pixel: groups of 8 by 8 by 1 over src0
// tail  invocations outside src0 do nothing; nothing is written beyond the buffer
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2D src0;
layout(rgba16f, binding = 1) readonly uniform highp image2D src1;
layout(std430, binding = 2) readonly buffer phase_buffer {
    float phase[];
};
layout(std430, binding = 3) writeonly buffer spectrum_buffer {
    float spectrum[];
};

const float MAGNITUDE_SCALE = 13.685064;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    ivec2 size = imageSize(src0);
    if (any(greaterThanEqual(pos, size))) return;
    int i = pos.y * size.x + pos.x;
    float magnitude = imageLoad(src0, pos).x * imageLoad(src1, pos).x * MAGNITUDE_SCALE;
    float angle = i < phase.length() ? phase[i] : 0.0;
    if (2 * i + 1 >= spectrum.length()) return;
    spectrum[2 * i] = magnitude * cos(angle);
    spectrum[2 * i + 1] = magnitude * sin(angle);
}
