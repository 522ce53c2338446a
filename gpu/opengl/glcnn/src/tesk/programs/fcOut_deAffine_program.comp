#version 310 es
// Maps landmarks that were found on an aligned crop back through the alignment's affine map.
//
// in   fcOut   image array, binding 0: a 1 by 1 tensor, two points to a slice (x0, y0, x1, y1)
//      stnOut  image array, binding 1: a 1 by 1 tensor whose first six channels are the map A, row
//              by row: x' = a0 x + a1 y + a2, y' = a3 x + a4 y + a5
// out  points  buffer, binding 2, one vec4 per slice of fcOut: (x0', y0', x1', y1')
// work  one invocation per slice of fcOut: groups (1, 1, slices)
// tail  invocations beyond the last slice do nothing; nothing is written beyond the buffer
layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray fcOut;
layout(rgba16f, binding = 1) readonly uniform highp image2DArray stnOut;
layout(std430, binding = 2) writeonly buffer points_buffer {
    vec4 points[];
};

void main() {
    int z = int(gl_GlobalInvocationID.z);
    if (z >= min(imageSize(fcOut).z, points.length())) return;

    vec4 a0123 = imageLoad(stnOut, ivec3(0, 0, 0));
    vec4 a45 = imageLoad(stnOut, ivec3(0, 0, 1));
    vec3 row0 = a0123.xyz;
    vec3 row1 = vec3(a0123.w, a45.xy);

    vec4 pair = imageLoad(fcOut, ivec3(0, 0, z));
    vec3 p0 = vec3(pair.xy, 1.0);
    vec3 p1 = vec3(pair.zw, 1.0);
    points[z] = vec4(dot(row0, p0), dot(row1, p0), dot(row0, p1), dot(row1, p1));
}
