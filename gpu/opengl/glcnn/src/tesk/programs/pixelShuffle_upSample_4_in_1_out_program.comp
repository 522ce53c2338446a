#version 310 es
// Depth to space by 2 of four channels to one.
//
// in   src  sampler
// out  dst  image, binding 1, twice as wide and high as src: components x, y, z, w of texel (x, y)
//           at (2x, 2y), (2x + 1, 2y), (2x, 2y + 1), (2x + 1, 2y + 1) as (value, 0, 0, 0)
// work  one invocation per texel of src: groups of 8 by 8 by 1 over src
// tail  invocations outside src do nothing; pixels outside dst are dropped
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

uniform highp sampler2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, textureSize(src, 0)))) return;
    vec4 value = texelFetch(src, pos, 0);
    ivec2 corner = 2 * pos;
    imageStore(dst, corner, vec4(value.x, 0.0, 0.0, 0.0));
    imageStore(dst, corner + ivec2(1, 0), vec4(value.y, 0.0, 0.0, 0.0));
    imageStore(dst, corner + ivec2(0, 1), vec4(value.z, 0.0, 0.0, 0.0));
    imageStore(dst, corner + ivec2(1, 1), vec4(value.w, 0.0, 0.0, 0.0));
}
