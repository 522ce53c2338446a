#version 310 es
// Soft arg max of every channel: where on the map its peak lies, as a weighted mean of positions.
//
// in   src    image array, binding 0: one map per channel, four channels to a slice
//      _beta  sharpness; the weight of a value is exp(value * _beta)
// out  dst    buffer, binding 1, two vec4 per slice: points of channels 4z and 4z + 1 in dst[2z] as
//             (x0, y0, x1, y1), those of 4z + 2 and 4z + 3 in dst[2z + 1];
//             the first column is -1, the last 1, rows likewise; an axis of length one is -1
// work  one invocation per slice of src: groups (1, 1, slices)
// tail  invocations beyond the last slice do nothing; nothing is written beyond the buffer
layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(std430, binding = 1) writeonly buffer dst_buffer {
    vec4 dst[];
};
uniform float _beta;

void main() {
    int z = int(gl_GlobalInvocationID.z);
    ivec3 size = imageSize(src);
    if (z >= size.z) return;

    // The weights are scaled by that of the peak, which the mean doesn't notice: no exp overflows.
    vec4 peak = imageLoad(src, ivec3(0, 0, z)) * _beta;
    for (int y = 0; y < size.y; ++y) {
        for (int x = 0; x < size.x; ++x) {
            peak = max(peak, imageLoad(src, ivec3(x, y, z)) * _beta);
        }
    }

    vec2 last = vec2(max(size.xy - 1, ivec2(1)));
    vec4 sum = vec4(0.0);
    vec4 sum_x = vec4(0.0);
    vec4 sum_y = vec4(0.0);
    for (int y = 0; y < size.y; ++y) {
        for (int x = 0; x < size.x; ++x) {
            vec2 coor = vec2(x, y) / last * 2.0 - 1.0;
            vec4 weight = exp(imageLoad(src, ivec3(x, y, z)) * _beta - peak);
            sum += weight;
            sum_x += weight * coor.x;
            sum_y += weight * coor.y;
        }
    }
    vec4 mean_x = sum_x / sum;
    vec4 mean_y = sum_y / sum;
    if (2 * z + 1 >= dst.length()) return;
    dst[2 * z] = vec4(mean_x.x, mean_y.x, mean_x.y, mean_y.y);
    dst[2 * z + 1] = vec4(mean_x.z, mean_y.z, mean_x.w, mean_y.w);
}
