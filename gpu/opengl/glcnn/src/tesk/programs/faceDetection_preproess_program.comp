#version 310 es
// Brings a picture to mean 0 and deviation 1, colour by colour.
//
// in   src  image2D, unit 0: picture, components 0 to 1
// out  dst  image2D, unit 1: ((x, y, z) - MEAN) / DEVIATION, 0
// map  one thread per texel of dst
// tail threads outside dst return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D src;
layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;

const vec3 MEAN = vec3(0.485, 0.456, 0.406);
const vec3 DEVIATION = vec3(0.229, 0.224, 0.225);

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst)))) {
        return;
    }
    imageStore(dst, pos, vec4((imageLoad(src, pos).xyz - MEAN) / DEVIATION, 0.0));
}
