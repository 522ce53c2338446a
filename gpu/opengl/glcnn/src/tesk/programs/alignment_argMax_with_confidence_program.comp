#version 310 es
// Soft arg max of every channel, and how far its weights spread around that point.
//
// in   src    image array, binding 0: one map per channel, four channels to a slice, at most
//             32 by 32; columns and rows beyond that take no part
//      _beta  sharpness; the weight of a value is exp(value * _beta)
// out  dst    image array, binding 1: points of channels 4z and 4z + 1 in slice 2z as
//             (x0, y0, x1, y1), those of 4z + 2 and 4z + 3 in slice 2z + 1, at (0, 0);
//             the first column is -1, the last 1, rows likewise; an axis of length one is -1
//      conf   buffer, binding 2, one vec4 per slice: per channel the root of the weighted mean of
//             the squared distances from the point, 0 for a single sharp peak
// work  one invocation per slice of src: groups (1, 1, slices)
// tail  invocations beyond the last slice do nothing; nothing is written beyond the buffer
layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2DArray dst;
layout(std430, binding = 2) writeonly buffer conf_buffer {
    vec4 conf[];
};
uniform float _beta;

const int MAX_SIDE = 32;

// The weights, row by row. A group is one invocation: shared memory is its own, and drivers take
// 16 KiB there far better than among the registers.
shared vec4 _fm_data_exp_save[1024];

void main() {
    int z = int(gl_GlobalInvocationID.z);
    ivec3 size = imageSize(src);
    if (z >= size.z) return;
    ivec2 map = min(size.xy, ivec2(MAX_SIDE));
    int count = map.x * map.y;

    vec2 _coor_xy[32];  // x of column i, y of row i
    vec2 last = vec2(max(size.xy - 1, ivec2(1)));
    for (int i = 0; i < MAX_SIDE; ++i) _coor_xy[i] = vec2(i) / last * 2.0 - 1.0;

    // The weights are scaled by that of the peak, which no mean notices: no exp overflows. The loops
    // are flat, since Mesa unrolls nested ones over arrays of known length into all 1024 rounds.
    vec4 peak = imageLoad(src, ivec3(0, 0, z)) * _beta;
    for (int i = 0; i < count; ++i) {
        vec4 exponent = imageLoad(src, ivec3(i % map.x, i / map.x, z)) * _beta;
        _fm_data_exp_save[i] = exponent;
        peak = max(peak, exponent);
    }

    vec4 sum = vec4(0.0);
    vec4 sum_x = vec4(0.0);
    vec4 sum_y = vec4(0.0);
    for (int i = 0; i < count; ++i) {
        vec4 weight = exp(_fm_data_exp_save[i] - peak);
        _fm_data_exp_save[i] = weight;
        sum += weight;
        sum_x += weight * _coor_xy[i % map.x].x;
        sum_y += weight * _coor_xy[i / map.x].y;
    }
    vec4 mean_x = sum_x / sum;
    vec4 mean_y = sum_y / sum;
    imageStore(dst, ivec3(0, 0, 2 * z), vec4(mean_x.x, mean_y.x, mean_x.y, mean_y.y));
    imageStore(dst, ivec3(0, 0, 2 * z + 1), vec4(mean_x.z, mean_y.z, mean_x.w, mean_y.w));

    vec4 spread = vec4(0.0);
    for (int i = 0; i < count; ++i) {
        vec4 dx = _coor_xy[i % map.x].x - mean_x;
        vec4 dy = _coor_xy[i / map.x].y - mean_y;
        spread += _fm_data_exp_save[i] * (dx * dx + dy * dy);
    }
    if (z < conf.length()) conf[z] = sqrt(spread / sum);
}
