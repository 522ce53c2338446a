// The fully connected layer on blocks of four outputs by four inputs.

#include "support/tensor_programs.h"

namespace {

using namespace testing_support;

constexpr unsigned int seed = 40214;

/// Bits of a number that a half holds exactly.
uint32_t half_bits(double value) {
    const uint32_t sign = std::signbit(value) ? 0x8000u : 0u;
    const double magnitude = std::fabs(value);
    if (magnitude == 0.0) return sign;
    int exponent = 0;
    std::frexp(magnitude, &exponent);  // magnitude in [0.5, 1) * 2^exponent
    if (exponent < -13) return sign | static_cast<uint32_t>(std::ldexp(magnitude, 24));
    const uint32_t mantissa = static_cast<uint32_t>(std::ldexp(magnitude, 11 - exponent)) & 1023u;
    return sign | static_cast<uint32_t>(exponent + 14) << 10 | mantissa;
}

/// A layer of random weights with everything that the reference needs.
struct Layer {
    int inputs;
    int outputs;
    Tensor weights;  ///< (1, outputs, inputs)
    Tensor bias;     ///< (outputs, 1, 1)
    Tensor in;       ///< (inputs, 1, 1)

    Layer(int inputs, int outputs)
        : inputs(inputs),
          outputs(outputs),
          weights(random_halves(1, outputs, inputs, seed)),
          bias(random_halves(outputs, 1, 1, seed + 1)),
          in(random_halves(inputs, 1, 1, seed + 2)) {}

    int in_slices() const { return (inputs + 3) / 4; }
    int out_slices() const { return (outputs + 3) / 4; }

    /// Block after block, inputs inside output slices; in a block input after input, four outputs
    /// each. Two halves to a word, the first one low.
    std::vector<uint32_t> packed_weights() const {
        std::vector<uint32_t> halves;
        for (int out = 0; out < out_slices(); ++out) {
            for (int in_slice = 0; in_slice < in_slices(); ++in_slice) {
                for (int i = 4 * in_slice; i < 4 * in_slice + 4; ++i) {
                    for (int o = 4 * out; o < 4 * out + 4; ++o) {
                        const bool inside = o < outputs && i < inputs;
                        halves.push_back(inside ? half_bits(weights.at(0, o, i)) : 0u);
                    }
                }
            }
        }
        return paired(halves);
    }
    /// Four words for each output slice, of which two are used.
    std::vector<uint32_t> packed_bias() const {
        std::vector<uint32_t> halves;
        for (int out = 0; out < out_slices(); ++out) {
            for (int o = 4 * out; o < 4 * out + 4; ++o)
                halves.push_back(o < outputs ? half_bits(bias.at(o, 0, 0)) : 0u);
            halves.insert(halves.end(), 4, 0xffffu);  // words that nobody may look at
        }
        return paired(halves);
    }

    /// Outputs of the first `blocks` blocks alone, and the sums of their absolute terms.
    Tensor outputs_of(size_t blocks, size_t biases, Tensor* absolute) const {
        Tensor result(4 * out_slices(), 1, 1);
        *absolute = result;
        for (int o = 0; o < outputs; ++o) {
            const auto add = [&](double term) {
                result.at(o, 0, 0) += term;
                absolute->at(o, 0, 0) += std::fabs(term);
            };
            for (int i = 0; i < inputs; ++i) {
                if (static_cast<size_t>(o / 4 * in_slices() + i / 4) < blocks)
                    add(weights.at(0, o, i) * in.at(i, 0, 0));
            }
            if (static_cast<size_t>(o / 4) < biases) add(bias.at(o, 0, 0));
        }
        return result;
    }

    std::string text() const { return std::to_string(inputs) + " -> " + std::to_string(outputs); }

private:
    static std::vector<uint32_t> paired(const std::vector<uint32_t>& halves) {
        std::vector<uint32_t> words;
        for (size_t i = 0; i + 1 < halves.size(); i += 2)
            words.push_back(halves[i] | halves[i + 1] << 16);
        return words;
    }
};

void expect_outputs(const Tensor& got, const Tensor& want, const Tensor& absolute, int terms) {
    ASSERT_EQ(got.values.size(), want.values.size());
    for (size_t i = 0; i < want.values.size(); ++i) {
        // One rounding for each product and each sum, then the store.
        const double bound =
            half_unit(want.values[i]) + 2.0 * (terms + 1) * float_unit * absolute.values[i];
        EXPECT_NEAR(got.values[i], want.values[i], bound) << "output " << i;
    }
}

constexpr size_t all = ~size_t{0};

class FullConnectionProgramTest : public TensorProgramTest {
protected:
    FullConnectionProgramTest() : TensorProgramTest(seed) {}
};

TEST_F(FullConnectionProgramTest, OutputsAreTheWeightedSumsPlusTheBias) {
    for (const auto& [inputs, outputs] :
         {std::pair{8, 8}, {5, 5}, {20, 7}, {64, 40}, {130, 33}, {6, 200}}) {
        const Layer layer(inputs, outputs);
        Tensor absolute;
        const Tensor want = layer.outputs_of(all, all, &absolute);
        for (const bool uniform_blocks : {true, false}) {
            SCOPED_TRACE(layer.text() + (uniform_blocks ? ", uniform blocks" : ", storage"));
            const unsigned int target =
                uniform_blocks ? GL_UNIFORM_BUFFER : GL_SHADER_STORAGE_BUFFER;
            std::vector<uint32_t> weights = layer.packed_weights();
            std::vector<uint32_t> bias = layer.packed_bias();
            if (uniform_blocks) {  // a uniform block wants all of its declared size
                ASSERT_LE(weights.size(), 4096u * 4);
                weights.resize(4096 * 4);
                bias.resize(256 * 4);
            }
            const auto src = upload(layer.in, GL_RGBA16F, 5.0f);
            const auto dst = make_output(outputs, 1, 1);
            const auto weight_buffer = make_buffer(weights, target);
            const auto bias_buffer = make_buffer(bias, target);
            const auto program =
                use_program(uniform_blocks ? "fullConnected_operator_program"
                                           : "fullConnected_operator_ssbo_program");
            program->setUnifromTexture("src", 0, *src);
            program->bindImage(1, GL_WRITE_ONLY, *dst);
            program->bindBuffer(2, *weight_buffer);
            program->bindBuffer(3, *bias_buffer);
            program->setUniform1i("inDepth", layer.in_slices());
            program->compute(1, 1, static_cast<unsigned int>(layer.out_slices()) + 1);
            expect_outputs(read_back(*dst), want, absolute, inputs);
        }
    }
}

TEST_F(FullConnectionProgramTest, UpToFourOutputsGoIntoAPlainTexture) {
    for (const auto& [inputs, outputs] : {std::pair{8, 4}, {21, 1}, {256, 3}}) {
        const Layer layer(inputs, outputs);
        SCOPED_TRACE(layer.text());
        const auto src = upload(layer.in, GL_RGBA16F, 5.0f);
        const auto dst = make_output(outputs, 1, 1);
        const auto weights = make_buffer(layer.packed_weights());
        const auto bias = make_buffer(layer.packed_bias());
        const auto program = use_program("fullConnected_operator_ssbo_muti_in_4_out_program");
        program->setUnifromTexture("src", 0, *src);
        program->bindImage(1, GL_WRITE_ONLY, *dst);
        program->bindBuffer(2, *weights);
        program->bindBuffer(3, *bias);
        program->setUniform1i("inDepth", layer.in_slices());
        program->compute(1, 1, 1);
        Tensor absolute;
        const Tensor want = layer.outputs_of(all, all, &absolute);
        expect_outputs(read_back(*dst), want, absolute, inputs);
    }
}

TEST_F(FullConnectionProgramTest, WhatLiesBeyondTheEndOfWeightsAndBiasCountsAsZero) {
    const Layer layer(24, 20);  // 6 slices to 5: 30 blocks of 32 bytes, 5 biases of 16
    const auto src = upload(layer.in);
    const auto dst = make_output(20, 1, 1);
    const auto weights = make_buffer(layer.packed_weights());
    const auto bias = make_buffer(layer.packed_bias());
    const auto program = use_program("fullConnected_operator_ssbo_program");
    program->setUnifromTexture("src", 0, *src);
    program->bindImage(1, GL_WRITE_ONLY, *dst);
    program->bindBufferRange(2, *weights, 0, 15 * 32);
    program->bindBufferRange(3, *bias, 0, 3 * 16);
    program->setUniform1i("inDepth", 6);
    program->compute(1, 1, 5);
    Tensor absolute;
    const Tensor want = layer.outputs_of(15, 3, &absolute);
    expect_outputs(read_back(*dst), want, absolute, 24);
}

}  // namespace
