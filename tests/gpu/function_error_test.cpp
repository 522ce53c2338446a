// How exactly the driver computes the two functions of the activations that are no plain
// arithmetic, before anything is rounded to a half.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "tools/difference_bound.h"

namespace {

using testing_support::GpuTest;

struct Function {
    const char* name;
    const char* line;  ///< as the sources have it
    double (*exact)(double);
};

const Function functions[] = {
    {"Tanh", "out_value = tanh(out_value);", [](double x) { return std::tanh(x); }},
    {"Logistic", "out_value = 1.0 / (1.0 + exp(vec4(0.0, 0.0, 0.0, 0.0) - out_value));",
     [](double x) { return 1.0 / (1.0 + std::exp(-x)); }},
};

class FunctionError : public GpuTest, public testing::WithParamInterface<Function> {
protected:
    /// f(x) for each x, in floats from the arguments to the results.
    std::vector<float> on_the_gpu(const std::string& line, const std::vector<float>& arguments) {
        const std::string source =
            "#version 310 es\n"
            "layout(local_size_x = 64, local_size_y = 1, local_size_z = 1) in;\n"
            "layout(std430, binding = 0) buffer data_buffer{\n"
            "vec4 data[];\n"
            "};\n"
            "precision highp float;\n"
            "void main(){\n"
            "vec4 out_value = data[gl_GlobalInvocationID.x];\n" +
            line +
            "\n"
            "data[gl_GlobalInvocationID.x] = out_value;\n"
            "}\n";
        manager.addComputeProgramFromString(source.c_str(), "function_program");
        const std::shared_ptr<tesk::ComputeProgram> program =
            manager.getComputeProgram("function_program");
        const int bytes = static_cast<int>(arguments.size() * sizeof(float));
        tesk::Buffer buffer(bytes, arguments.data(), GL_SHADER_STORAGE_BUFFER);
        program->use();
        program->bindBuffer(0, buffer);
        program->compute(static_cast<unsigned int>(arguments.size() / 256), 1, 1);
        std::vector<float> results(arguments.size());
        buffer.getBufferData(bytes, reinterpret_cast<char*>(results.data()),
                             GL_SHADER_STORAGE_BUFFER);
        return results;
    }
};

TEST_P(FunctionError, IsWithinWhatTheBoundOfTheComparisonHolds) {
    // All signs and magnitudes from 2^-24 to 2^16, and densely where the functions bend.
    std::vector<float> arguments;
    for (int step = 0; step < 40 * 1024; ++step) {
        const float magnitude = std::exp2(static_cast<float>(step) / 1024.0f - 24.0f);
        arguments.push_back(magnitude);
        arguments.push_back(-magnitude);
    }
    std::mt19937 generator(1);
    std::uniform_real_distribution<float> bend(-20.0f, 20.0f);
    while (arguments.size() < (1u << 20)) arguments.push_back(bend(generator));

    const std::vector<float> results = on_the_gpu(GetParam().line, arguments);
    double most = 0.0;
    float at = 0.0f;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const double exact = GetParam().exact(static_cast<double>(arguments[i]));
        const double error = std::fabs(static_cast<double>(results[i]) - exact);
        ASSERT_FALSE(std::isnan(error)) << arguments[i];
        if (error <= most) continue;
        most = error;
        at = arguments[i];
    }
    RecordProperty("largest_error", "2^" + std::to_string(std::log2(most)));
    EXPECT_GT(most, 0.0) << "the driver computes in float";
    EXPECT_LE(most, tool::function_error) << "2^" << std::log2(most) << " at " << at;
}

INSTANTIATE_TEST_SUITE_P(Activations, FunctionError, testing::ValuesIn(functions),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
