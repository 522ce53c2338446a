#version 310 es
// Result of the guided filter: the linear model applied to the guide at full
// resolution.
//
// in   ab  image2D, unit 0: coefficients (a, b)
//      i_image  image2D, unit 1: guide, RGB
// out  dst_q  image2D, unit 2: (a . guide + b clamped to 0 to 1, 0, 0, 0)
// map  one thread per texel of dst_q
// tail threads outside dst_q return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D ab;
layout(rgba16f, binding = 1) readonly uniform highp image2D i_image;
layout(rgba16f, binding = 2) writeonly uniform highp image2D dst_q;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(dst_q)))) {
        return;
    }
    vec4 model = imageLoad(ab, pos);
    vec4 guide = imageLoad(i_image, pos);
    float q = model.x * guide.x + model.y * guide.y + model.z * guide.z + model.w;
    // Not clamp(): what it makes of a model that overflowed is not defined.
    q = q > 0.0 ? min(q, 1.0) : 0.0;
    imageStore(dst_q, pos, vec4(q, 0.0, 0.0, 0.0));
}
