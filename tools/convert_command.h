// `tarno convert`: from an ONNX file to a model file, with proof.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tool {

struct ConvertCommand {
    std::string input;
    std::string output;
    std::vector<std::string> data;    ///< one file for each input of the graph; empty: random
    std::vector<std::string> shapes;  ///< "name=1,3,224,224"
    std::string engines = "cpu";      ///< cpu, gpu or both
    bool layers = false;              ///< a line for each layer
    bool no_verify = false;
    unsigned int seed = 1;
    unsigned int model_id = 0;
    unsigned int application_type = 0;
    unsigned int gesture_mode = 0;
    bool verbose = false;
};

/// Writes the model and its names, and prints a report to standard output. Throws CommandError, and
/// leaves no file, when the graph has something that no layers give, or when the converted model
/// is further from the graph than its halves explain.
void convert(const ConvertCommand& command);

/// "name=1,3,224,224". Throws UsageError.
void parse_shape(const std::string& text, std::string& name, std::vector<int64_t>& dims);

}  // namespace tool
