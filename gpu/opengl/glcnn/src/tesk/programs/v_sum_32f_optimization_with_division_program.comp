#version 310 es
// Second pass of a box mean in two, divided by an image: sums the window
// along a column, divides by the whole window, then by divSrc.
//
// in   src  image2D of rgba32f, unit 0: sums along the rows
//      divSrc  image2D of rgba32f, unit 1, of the size of dst: mostly the box
//      mean of ones, which makes up for the fall-off at the edges
//      filterSizeHalf  reach of the window on each side
// out  dst  image2D of rgba32f, unit 2: the sum over 2 * filterSizeHalf + 1
//      values / (2 * filterSizeHalf + 1) squared / divSrc, component by
//      component; imageLoad gives 0 outside src
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba32f, binding = 0) readonly uniform highp image2D src;
layout(rgba32f, binding = 1) readonly uniform highp image2D divSrc;
layout(rgba32f, binding = 2) writeonly uniform highp image2D dst;
uniform int filterSizeHalf;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    vec4 sum = vec4(0.0);
    for (int i = -filterSizeHalf; i <= filterSizeHalf; ++i) {
        sum += imageLoad(src, pos + ivec2(0, i));
    }
    float side = float(2 * filterSizeHalf + 1);
    imageStore(dst, pos, sum / (side * side) / imageLoad(divSrc, pos));
}
