#version 310 es
// First half of a reshape: the tensor as plain floats, plane after plane, four planes to a slice.
//
// in   src         image, binding 0: a tensor of one slice, H by W
//      src_slices  image array, binding 0, too: a tensor of more slices
// out  dst         buffer, binding 1, 4 H W floats per slice: channel c of pixel (x, y) at
//                  dst[(c H + y) W + x]; the padding channels of the last slice are written, too
// work  one invocation per texel: groups of 8 by 8 by 1 over (W, H, slices). A tensor of one slice
//       is a plain texture, any other an array: the number of groups along z tells which of the
//       two images stands behind the binding, and the other one is not touched.
// tail  invocations outside the tensor do nothing; nothing is written beyond the buffer
layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 0) readonly uniform highp image2DArray src_slices;
layout(std430, binding = 1) writeonly buffer dst_buffer {
    float dst[];
};

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    ivec3 size;
    vec4 value;
    if (gl_NumWorkGroups.z == 1u) {
        size = ivec3(imageSize(src), 1);
        value = imageLoad(src, pos.xy);
    } else {
        size = imageSize(src_slices);
        value = imageLoad(src_slices, pos);
    }
    if (any(greaterThanEqual(pos, size))) return;

    int plane = size.x * size.y;
    int first = 4 * pos.z * plane + pos.y * size.x + pos.x;
    for (int c = 0; c < 4; ++c) {
        int index = first + c * plane;
        if (index < dst.length()) dst[index] = value[c];
    }
}
