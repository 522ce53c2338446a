// The shader that docs/gpu-engine.md explains is one that the code makes.
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <fstream>
#include <sstream>
#include <string>

#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_kxk.h"

namespace {

/// Without the blanks at the ends of lines, which a page of text need not keep.
std::string trimmed_lines(const std::string& text) {
    std::istringstream lines(text);
    std::string line, result;
    while (std::getline(lines, line)) {
        result += line.substr(0, line.find_last_not_of(" \t") + 1) + "\n";
    }
    return result;
}

TEST(DocumentedShader, is_what_the_generator_makes_for_the_last_layer_of_the_shipped_model) {
    std::ifstream file(TARNO_SOURCE_DIR "/docs/gpu-engine.md");
    ASSERT_TRUE(file.good());
    std::ostringstream page;
    page << file.rdbuf();
    const std::string text = page.str();
    const std::string fence = "```glsl\n";
    const size_t begin = text.find(fence);
    ASSERT_NE(begin, std::string::npos);
    const size_t end = text.find("```", begin + fence.size());
    ASSERT_NE(end, std::string::npos);

    tesk::TricksParams params;
    params.localSizeX = 8;
    params.localSizeY = 8;
    params.localSizeZ = 1;
    params.inChannels = 16;
    params.outChannels = 1;
    params.inSlices = 4;
    params.inSliceStride = 18;
    params.outSliceStride = 72;
    params.padX = 1;
    params.padY = 1;
    params.activation = 4;
    tesk::ComputeProgramManager manager(0, "test");
    tesk::Tricks_Conv2d_3x3_Basic generator(&manager);
    EXPECT_EQ(text.substr(begin + fence.size(), end - begin - fence.size()),
              trimmed_lines(generator.generateSource(params)));
    EXPECT_NE(text.find(generator.programName(params, "Conv2D", 8, 8, 1)), std::string::npos);
}

}  // namespace
