// Tables for convolutions in groups. The engine computes them as one group, with the weights that
// the file does not have as 0; the operators of a table must do the same, or be refused.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <cmath>
#include <string>
#include <vector>

#include "tools/tuning.h"

namespace {

using namespace command_test;
using modelkit::NetBuilder;
using modelkit::Window;

constexpr int in_channels = 8, out_channels = 16, groups = 2, side = 16;

class TunedGroups : public Tuning {
protected:
    /// One convolution in two groups whose weights are known, halves without rounding.
    void save_grouped(const Window& window) {
        modelkit::ModelHeader header;
        header.base_w = side;
        header.base_h = side;
        NetBuilder net(header, 7);
        const size_t count =
            size_t{out_channels} * in_channels / groups * window.kernel_w * window.kernel_h;
        given = modelkit::Weights();
        for (size_t i = 0; i < count; ++i) {
            given.weights.push_back(static_cast<float>(static_cast<int>(i * 37 % 65) - 32) / 64.0f);
        }
        for (int p = 0; p < out_channels; ++p) {
            given.bias.push_back(static_cast<float>(p - 5) / 8.0f);
        }
        net.conv(net.input(in_channels), out_channels, window, 0, groups, given);
        save(net, in_channels, side, side);
    }

    /// The convolution of all channels with all weights, the missing ones 0, in double.
    std::vector<double> expected(const Window& window) const {
        const Array in = read_array(input);
        const int top = side / window.stride_h;
        std::vector<double> result;
        for (int p = 0; p < out_channels; ++p) {
            for (int y = 0; y < top; ++y) {
                for (int x = 0; x < top; ++x) {
                    double sum = static_cast<double>(given.bias[static_cast<size_t>(p)]);
                    size_t tap =
                        static_cast<size_t>(p) * in_channels * window.kernel_h * window.kernel_w;
                    for (int q = 0; q < in_channels; ++q) {
                        for (int ky = 0; ky < window.kernel_h; ++ky) {
                            for (int kx = 0; kx < window.kernel_w; ++kx, ++tap) {
                                const int sy = y * window.stride_h + ky - window.pad_h;
                                const int sx = x * window.stride_w + kx - window.pad_w;
                                const bool inside = sy >= 0 && sy < side && sx >= 0 && sx < side;
                                if (!inside || tap >= given.weights.size()) continue;
                                sum += static_cast<double>(given.weights[tap]) *
                                       static_cast<double>(in.at(q, sy, sx));
                            }
                        }
                    }
                    result.push_back(sum);
                }
            }
        }
        return result;
    }

    modelkit::Weights given;
};

TEST_F(TunedGroups, ATableOfAGroupedNetIsReadBackAndComputesTheSame) {
    const Window windows[] = {Window::square(1, 1, 0), Window::square(3, 1, 1),
                              Window::square(3, 2, 1), Window::square(5, 1, 2),
                              Window{3, 1, 1, 0, 1, 1, 1, 1}};
    for (const Window& window : windows) {
        SCOPED_TRACE(testing::Message()
                     << window.kernel_w << "x" << window.kernel_h << " stride " << window.stride_w);
        save_grouped(window);
        tuned();
        expect_the_same_within_rounding();
        const Array found = output_of({"--table", table});
        const std::vector<double> wanted = expected(window);
        ASSERT_EQ(wanted.size(), found.values.size());
        // Weights of at most 1/2 on inputs of at most 1, and the bias.
        const double terms = static_cast<double>(in_channels) * window.kernel_w * window.kernel_h;
        const double bound = testing_support::gamma_of(terms + 1) * (terms / 2.0 + 2.0);
        for (size_t i = 0; i < wanted.size(); ++i) {
            EXPECT_NEAR(wanted[i], found.values[i], bound) << i;
        }
    }
}

TEST_F(TunedGroups, EveryOperatorThatATableMayNameComputesTheSame) {
    save_grouped(Window::square(3, 1, 1));
    for (const char* name : {"Convolution_3x3s1_Float_SGEMM", "Convolution_Float_Fallback",
                             "Convolution_Float_Blas"}) {
        SCOPED_TRACE(name);
        write_file(table, table_of({"Input_Fallback", name}));
        expect_the_same_within_rounding();
    }
}

TEST_F(TunedGroups, AnOperatorForOneGroupIsRefusedWithTheReason) {
    save_grouped(Window::square(3, 1, 1));
    for (const char* name : {"Convolution_3x3s1_Float_SSE_M1", "Convolution_3x3s1_Float_SSE_M7"}) {
        expect_table_refused(table_of({"Input_Fallback", name}),
                             {"edited.h: line 3", "row 1", "layer 1 (Conv2D)", name,
                              "is for one group, the layer has 2"});
    }
    save_grouped(Window::square(1, 1, 0));
    for (const char* name :
         {"Convolution_1x1s1_Float_SSE_M1", "Convolution_1x1s1_Float_C8HW8_AVX2_M1"}) {
        expect_table_refused(table_of({"Input_Fallback", name}),
                             {"row 1", name, "is for one group, the layer has 2"});
    }
    // The classes of another kind of layer do apply groups, and are refused all the same.
    expect_table_refused(table_of({"Input_Fallback", "ConvolutionDepthwise_Float_Fallback"}),
                         {"row 1", "kind ConvolutionDepthWise", "kind Convolution"});
}

}  // namespace
