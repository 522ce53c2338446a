#version 310 es
// Covariance of guide and mask: mean of the product less product of the
// means.
//
// in   meanip  image2D, unit 0: mean of (r, g, b) * mask
//      meanimeanp  image2D, unit 1: means (r, g, b, mask)
// out  covip  image2D, unit 2: meanip - mean (r, g, b) * mean mask, 0
// map  one thread per texel of covip
// tail threads outside covip return
precision highp float;

layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;

layout(rgba16f, binding = 0) readonly uniform highp image2D meanip;
layout(rgba16f, binding = 1) readonly uniform highp image2D meanimeanp;
layout(rgba16f, binding = 2) writeonly uniform highp image2D covip;

void main()
{
    ivec2 pos = ivec2(gl_GlobalInvocationID.xy);
    if (any(greaterThanEqual(pos, imageSize(covip)))) {
        return;
    }
    vec4 mean = imageLoad(meanimeanp, pos);
    imageStore(covip, pos, vec4(imageLoad(meanip, pos).xyz - mean.xyz * mean.w, 0.0));
}
