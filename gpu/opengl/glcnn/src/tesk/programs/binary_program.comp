#version 310 es
// A hard mask from a soft one.
//
// in   src  image, binding 0: the mask in x
// out  dst  image, binding 1, of the size of src: (1, 1, 1, 0) where x is above 0.5, else 0
// work  one invocation per pixel: groups of 8 by 8 by 1 over dst
// tail  invocations outside dst do nothing
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

const float THRESHOLD = 0.5;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) return;
    float mask = imageLoad(src, pos).x > THRESHOLD ? 1.0 : 0.0;
    imageStore(dst, pos, vec4(mask, mask, mask, 0.0));
}
