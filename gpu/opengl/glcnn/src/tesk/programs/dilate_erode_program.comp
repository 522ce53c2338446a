#version 310 es
// Trimap from the 9 by 9 sums of a binary mask: all 81 neighbours set is sure foreground, none is
// sure background, and the rim between them is unknown.
//
// in   src  image, binding 0: the sum of the mask over the window in x, 0 to 81
// out  dst  image, binding 1, of the size of src: (t, t, t, 0) with t 1.0 for a sum at and above
//           80.5, 0.0 below 1.0, else 0.5
// work  one invocation per pixel: groups of 8 by 8 by 1 over dst
// tail  invocations outside dst do nothing
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

const float ALL_SET = 80.5;
const float ANY_SET = 1.0;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) return;
    float sum = imageLoad(src, pos).x;
    float level = 0.5;
    if (sum >= ALL_SET) level = 1.0;
    else if (sum < ANY_SET) level = 0.0;
    imageStore(dst, pos, vec4(level, level, level, 0.0));
}
