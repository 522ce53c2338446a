#version 310 es
// Softmax over two classes per pixel, of which the second one's probability is kept.
//
// in   src  sampler: scores of the two classes in x and y
// out  dst  image, binding 1, of the size of src: (probability of the second class, 0, 0, 0)
// work  one invocation per pixel: groups of 8 by 8 by 1 over dst
// tail  invocations outside dst do nothing
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) return;
    vec2 score = texelFetch(src, pos, 0).xy;
    // e^y / (e^x + e^y) by the difference: no overflow makes it 0 / 0.
    float second = 1.0 / (1.0 + exp(score.x - score.y));
    imageStore(dst, pos, vec4(second, 0.0, 0.0, 0.0));
}
