#version 310 es
// Fully connected layer with at most four outputs, weights in storage buffers.
//
// in   src       sampler array: a 1 by 1 tensor
//      weights   storage buffer, binding 2: two uvec4 of 16 half floats per block of
//                4 outputs by 4 inputs, input after input; block z inDepth + i takes slice i of
//                src to slice z of dst
//      bias      storage buffer, binding 3: one uvec4 per slice of dst, four half floats
//                in x and y
//      inDepth   slices of src
// out  dst       image, binding 1: one texel
// work  one invocation per slice of dst: groups (1, 1, slices)
// tail  invocations outside dst do nothing; weights and biases beyond the end of their blocks and
//       slices beyond the end of src count as 0
layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;
precision highp float;

uniform highp sampler2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;
layout(std430, binding = 2) readonly buffer weight_buffer {
    uvec4 weights[];
};
layout(std430, binding = 3) readonly buffer bias_buffer {
    uvec4 bias[];
};
uniform int inDepth;

// Column i holds the weights of input i for the four outputs.
mat4 unpack2Mat(uvec4 first, uvec4 second) {
    return mat4(vec4(unpackHalf2x16(first.x), unpackHalf2x16(first.y)),
                vec4(unpackHalf2x16(first.z), unpackHalf2x16(first.w)),
                vec4(unpackHalf2x16(second.x), unpackHalf2x16(second.y)),
                vec4(unpackHalf2x16(second.z), unpackHalf2x16(second.w)));
}

void main() {
    ivec3 pos = ivec3(gl_GlobalInvocationID);
    if (any(greaterThanEqual(pos, ivec3(imageSize(dst), 1)))) return;

    int block = pos.z * inDepth;
    int depth = min(min(inDepth, textureSize(src, 0).z), weights.length() / 2 - block);
    vec4 sum = vec4(0.0);
    for (int i = 0; i < depth; ++i) {
        int offset = (block + i) * 2;
        mat4 block_weights = unpack2Mat(weights[offset], weights[offset + 1]);
        sum += block_weights * texelFetch(src, ivec3(pos.xy, i), 0);
    }
    if (pos.z < bias.length()) {
        sum += vec4(unpackHalf2x16(bias[pos.z].x), unpackHalf2x16(bias[pos.z].y));
    }
    imageStore(dst, pos.xy, sum);
}
