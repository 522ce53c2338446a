#version 310 es
// Space to depth by 2 of one channel.
//
// in   src  sampler: the channel in x
// out  dst  image, binding 1, half as wide and high as src: the values of pixels (2x, 2y),
//           (2x + 1, 2y), (2x, 2y + 1), (2x + 1, 2y + 1), 0 for a pixel outside src
// work  one invocation per texel of dst: groups of 8 by 8 by 1 over dst
// tail  invocations outside dst do nothing
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

float value_at(ivec2 pos) {
    return all(lessThan(pos, textureSize(src, 0))) ? texelFetch(src, pos, 0).x : 0.0;
}

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) return;
    ivec2 corner = 2 * pos;
    imageStore(dst, pos, vec4(value_at(corner), value_at(corner + ivec2(1, 0)),
                              value_at(corner + ivec2(0, 1)), value_at(corner + ivec2(1, 1))));
}
