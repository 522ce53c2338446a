#version 310 es
// Test pattern for the input of a network.
//
// out  dst  image, binding 0: (x + y, x + y + 1, x + y + 2) * 0.001, w 0
// work  one invocation per pixel: groups of 8 by 8 by 1 over dst
// tail  invocations outside dst do nothing
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) writeonly uniform highp image2D dst;

const float STEP = 0.001;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) return;
    float first = float(pos.x + pos.y);
    imageStore(dst, pos, vec4(vec3(first, first + 1.0, first + 2.0) * STEP, 0.0));
}
