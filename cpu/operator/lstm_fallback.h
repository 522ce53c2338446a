#pragma once

#include <cstdint>
#include <memory>

#include "cpu/operator.h"

namespace TarnoCPU {

/// Long short-term memory over a sequence that arrives as the channels of a tensor, in one
/// direction or two: top[t][0][j], T x 1 x hidden_size, with the reverse direction's units behind
/// the forward one's. The bottom is read as T runs of `input_size` floats, whatever its h and w
/// are.
///
/// Hidden and cell state live here and carry over from one `forward` to the next until
/// `reset_lstm_state`; so one operator takes one `forward` at a time.
///
/// Parameters, kept in 16 bits: 0 `input_size`, 1 `hidden_size`, 2 `size_factor`, 3 `bias_term`,
/// 4 `bidirectional`, all 0. Weights by index: 0 input, 1 recurrent, 2 and 3 the same of the
/// reverse direction, as [gate][unit][weight] with the gates input, forget, candidate, output, and
/// the same for the biases of type 1. Each array is asked for `size_factor` times as large as that;
/// what is behind the first block is not used.
class LSTM_Fallback : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    void reset_lstm_state() override;
    std::string name() const override { return "LSTM_Fallback"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    /// Asked about the top, not about the bottom.
    bool check_forward(const TensorShape& shape) override;

private:
    struct Direction {
        Mat w_input;                              ///< [gate][unit][input_size]
        Mat w_recurrent;                          ///< [gate][unit][hidden_size]
        std::unique_ptr<float[]> bias_input;      ///< [gate][unit]
        std::unique_ptr<float[]> bias_recurrent;  ///< [gate][unit]
    };

    int directions() const { return bidirectional != 0 ? 2 : 1; }
    bool load_direction(const ModelBin& mb, int d);
    void step(const Direction& direction, const float* x, int64_t x_count, const float* hidden_prev,
              const float* cell_prev, float* hidden, float* cell) const;

    uint16_t input_size = 0;
    uint16_t hidden_size = 0;
    uint16_t size_factor = 0;
    uint16_t bias_term = 0;
    uint16_t bidirectional = 0;
    Direction direction[2];
    std::unique_ptr<float[]> hidden_state;  ///< forward direction first
    std::unique_ptr<float[]> cell_state;
    int64_t state_size = 0;
    bool loaded = false;
};

}  // namespace TarnoCPU
