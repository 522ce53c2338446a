#include "cpu/operator_x86/full_connection_row.h"

#include <emmintrin.h>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

int FullConnectionRow::load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig&) {
    loaded = false;
    num_output = pd.get(0, 0);
    num_input = pd.get(1, 0);
    bias_term = pd.get(9, 0);
    weight_data = mb.load(pd.get(10, 0), 0, 0);
    if (weight_data.empty()) return -100;
    weight_data = extended_with_zeros(weight_data, int64_t{num_output} * num_input);
    if (weight_data.empty()) return -100;
    if (bias_term != 0) {
        bias_data = mb.load(num_output, 1, 0);
        if (bias_data.empty()) return -100;
    }
    loaded = true;
    return 0;
}

bool FullConnectionRow::check_forward(const TensorShape& shape) {
    return is_float_chw(shape) && shape.total() == num_input;
}

bool FullConnectionRow::make_top(const Mat& bottom, Mat& top, const Option& opt) const {
    if (!loaded || num_output <= 0 || bottom.empty()) return false;
    const TensorShape& shape = bottom.shape;
    top.create(TensorShape(shape.layout, 1, 1, num_output, shape.elem_size, shape.frac_bits),
               opt.blob_allocator);
    return !top.empty();
}

void FullConnectionRow::add_bias(Mat& top) const {
    if (bias_term == 0) return;
    float* out = top.ptr<float>();
    const float* bias = bias_data.ptr<float>();
    int64_t p = 0;
    for (; p + 4 <= num_output; p += 4) {
        _mm_storeu_ps(out + p, _mm_add_ps(_mm_loadu_ps(out + p), _mm_loadu_ps(bias + p)));
    }
    for (; p < num_output; ++p)
        out[p] += bias[p];
}

}  // namespace TarnoCPU
