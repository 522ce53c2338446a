// The sources of the convolution generators.
#pragma once

#include <string>

#include "tricks/tricks.h"
#include "tricks/tricks_params.h"
#include "types.h"

namespace tesk {

/// Writes the GLSL of one convolution from its constants. One object with one text buffer: a result
/// is valid until the next call, a source beyond the buffer is cut off, and only the thread of the
/// GL context may call.
///
/// In the names, "1x3" is three wide and one high.
class TESK_TESTED ShaderFormat {
public:
    static ShaderFormat& instance();

    /// One pixel of one slice for each invocation.
    const char* conv2d_1x1_basic(const TricksParams& params);
    const char* conv2d_1x3_basic(const TricksParams& params);
    const char* conv2d_3x1_basic(const TricksParams& params);
    const char* conv2d_3x3_basic(const TricksParams& params);
    const char* conv2d_4x4_basic(const TricksParams& params);
    const char* conv2d_1x5_basic(const TricksParams& params);
    const char* conv2d_5x1_basic(const TricksParams& params);
    const char* conv2d_5x5_basic(const TricksParams& params);
    const char* conv2d_1x7_basic(const TricksParams& params);
    const char* conv2d_7x1_basic(const TricksParams& params);

    /// Two by two pixels of one, two and four slices for each invocation.
    const char* conv2d_1x1_4PointsOut(const TricksParams& params);
    const char* conv2d_1x1_4Points_2Slice(const TricksParams& params);
    const char* conv2d_1x1_4Points_4Slice(const TricksParams& params);

    /// Stride 2: one invocation for each input pixel writes two by two output pixels (7 wide: two
    /// in a row).
    const char* transpose_conv2d_3x3_basic(const TricksParams& params);
    const char* transpose_conv2d_2x2_basic(const TricksParams& params);
    const char* transpose_conv2d_1x7_basic(const TricksParams& params);

    /// Main pass of the constant-index generators: one input slice onto `slicesPerDispatch` output
    /// slices.
    const char* conv2d_1x1_ci(const TricksParams& params);
    const char* conv2d_1x3_ci(const TricksParams& params);
    const char* conv2d_3x1_ci(const TricksParams& params);
    const char* conv2d_3x3_ci(const TricksParams& params);
    const char* conv2d_1x5_ci(const TricksParams& params);
    const char* conv2d_5x1_ci(const TricksParams& params);
    const char* conv2d_5x5_ci(const TricksParams& params);
    const char* conv2d_1x7_ci(const TricksParams& params);
    const char* conv2d_7x1_ci(const TricksParams& params);
    const char* transpose_conv2d_3x3_ci(const TricksParams& params);
    const char* transpose_conv2d_2x2_ci(const TricksParams& params);
    const char* transpose_conv2d_1x7_ci(const TricksParams& params);
    /// Stores 0 everywhere.
    const char* constant_index_pre(const TricksParams& params);
    /// Adds the bias and applies the activation.
    const char* constant_index_post(const TricksParams& params);

    ShaderFormat(const ShaderFormat&) = delete;
    ShaderFormat& operator=(const ShaderFormat&) = delete;

private:
    ShaderFormat() = default;

    /// The texts that differ from generator to generator.
    struct Pieces {
        std::string position;
        std::string image_data;
        std::string body;
        std::string bias;
        std::string activation;
        std::string store;
    };
    /// Assembles a format of header, declarations, `pieces.position`, the channel loop and the
    /// closing lines, and fills in numbers and texts.
    const char* assemble(const TricksParams& params, const Pieces& pieces);
    /// The common form: one accumulator, with the texts of bias, activation and store around it.
    const char* direct(const TricksParams& params, const std::string& image_data,
                       const std::string& body);
    const char* keep(const std::string& source);

    char text[sourceBufferBytes];
};

}  // namespace tesk
