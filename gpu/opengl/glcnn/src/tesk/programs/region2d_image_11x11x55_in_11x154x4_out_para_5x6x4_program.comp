#version 310 es
// Decodes a detection head of fixed shape: 5 anchors of 4 coordinates, a confidence and 6 classes,
// on an 11 by 11 map.
//
// in   src  image array, binding 0: 11 by 11, 14 slices. The 11 values of anchor a are channels
//           11a to 11a + 10: x, y, w, h, confidence, six class scores. Channel 55 is padding.
// out  dst  image, binding 1, 154 columns by 11 rows: the 14 texels of pixel (x, y) at row y,
//           columns 14x to 14x + 13. x, y and the confidence pass a logistic, the class scores a
//           softmax; w and h stay as they are.
// work  one invocation per pixel of the map: one group
// tail  invocations outside src do nothing; texels outside dst are dropped
layout(local_size_x = 11, local_size_y = 11, local_size_z = 1) in;
precision highp float;

layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

const int ANCHORS = 5;
const int CLASSES = 6;
const int COORDS = 4;
const int ANCHOR_VALUES = COORDS + 1 + CLASSES;
const int SLICES = 14;

float logistic(float v) {
    return 1.0 / (1.0 + exp(-v));
}

void main() {
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(src).xy))) return;

    float data[SLICES * 4];
    for (int s = 0; s < SLICES; ++s) {
        vec4 value = imageLoad(src, ivec3(pos, s));
        for (int c = 0; c < 4; ++c) data[4 * s + c] = value[c];
    }

    for (int a = 0; a < ANCHORS; ++a) {
        int offset = a * ANCHOR_VALUES;
        data[offset] = logistic(data[offset]);
        data[offset + 1] = logistic(data[offset + 1]);
        data[offset + COORDS] = logistic(data[offset + COORDS]);

        int first = offset + COORDS + 1;
        float peak = data[first];
        for (int i = 1; i < CLASSES; ++i) peak = max(peak, data[first + i]);
        float sum = 0.0;
        for (int i = 0; i < CLASSES; ++i) {
            data[first + i] = exp(data[first + i] - peak);  // no exp overflows
            sum += data[first + i];
        }
        for (int i = 0; i < CLASSES; ++i) data[first + i] /= sum;
    }

    for (int s = 0; s < SLICES; ++s) {
        vec4 value = vec4(data[4 * s], data[4 * s + 1], data[4 * s + 2], data[4 * s + 3]);
        imageStore(dst, ivec2(SLICES * pos.x + s, pos.y), value);
    }
}
