#include "cpu/operator/fullconnection_float_fallback.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(FullConnection_Float_Fallback)

namespace {

// `Outputs` neighbouring outputs at once: their chains do not wait for each other.
template <int Outputs>
void dot_rows(const float* weights, const float* x, int64_t count, float* sums) {
    for (int64_t i = 0; i < count; ++i) {
        for (int p = 0; p < Outputs; ++p)
            sums[p] += weights[p * count + i] * x[i];
    }
}

}  // namespace

int FullConnection_Float_Fallback::load(const ParamDict& pd, const ModelBin& mb,
                                        const LayerInferenceConfig&) {
    loaded = false;
    num_output = pd.get(0, 0);
    num_input = pd.get(1, 0);
    bias_term = pd.get(9, 0);
    weight_data_size = pd.get(10, 0);
    weight_data = mb.load(weight_data_size, 0, 0);
    if (weight_data.empty()) return -100;
    if (bias_term != 0) {
        bias_data = mb.load(num_output, 1, 0);
        if (bias_data.empty()) return -100;
    }
    loaded = true;
    return 0;
}

bool FullConnection_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int FullConnection_Float_Fallback::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    if (!loaded || num_output <= 0 || bottom.empty() || bottom.shape.dims() == 0) return -100;
    const int64_t inputs = bottom.shape.c;
    top.create(TensorShape(bottom.shape.layout, num_output, 1, 1, bottom.shape.elem_size),
               opt.blob_allocator);
    const Mat weights = extended_with_zeros(weight_data, num_output * inputs);
    if (top.empty() || weights.empty()) return -100;

    const float* x = bottom.ptr<float>();
    float* out = top.ptr<float>();
    for (int p = 0; p < num_output; ++p)
        out[p] = bias_term != 0 ? bias_data.ptr<float>()[p] : 0.0f;
    int p = 0;
    for (; p + 4 <= num_output; p += 4) {
        float sums[4] = {out[p], out[p + 1], out[p + 2], out[p + 3]};
        dot_rows<4>(weights.ptr<float>() + p * inputs, x, inputs, sums);
        for (int i = 0; i < 4; ++i)
            out[p + i] = sums[i];
    }
    for (; p < num_output; ++p) {
        dot_rows<1>(weights.ptr<float>() + p * inputs, x, inputs, out + p);
    }
    return 0;
}

}  // namespace TarnoCPU
