// From files to the tensors that a net takes.
#pragma once

#include <tarno/cpu.h>

#include <map>
#include <string>
#include <vector>

#include "model_plan.h"

namespace tool {

/// How numbers become what the net was trained on.
struct InputRules {
    std::string pixel_type;   ///< rgb, bgr, gray or rgba: the order that the net wants; empty: by
                              ///< the channels of the input
    std::vector<float> mean;  ///< one for all channels or one for each; empty: none was given
    std::vector<float> norm;  ///< the same
};

struct NetInput {
    int index = 0;
    TarnoCPU::Mat tensor;
};

/// The files of one run, one for each input of a model, in the order of the input indices.
class InputFiles {
public:
    /// Looks into the files, but takes none in. `inputs` are the model's. Throws CommandError.
    InputFiles(const ModelFile& model, const std::vector<ModelInput>& inputs,
               const std::vector<std::string>& paths);

    /// The sizes that .npy files bring along, by input index.
    const std::map<int, TensorSize>& sizes() const { return npy_sizes; }

    /// Throws CommandError when the rules do not fit the inputs.
    void check(const InputRules& rules) const;

    /// Reads the files. Pictures are resized to the size of their input.
    std::vector<NetInput> load(const InputRules& rules,
                               const std::vector<ModelInput>& inputs) const;

    /// The first picture among the files, empty without one.
    const std::string& picture_path() const { return first_picture; }

private:
    const ModelFile& model;
    std::vector<ModelInput> inputs;
    std::vector<std::string> paths;
    std::map<int, TensorSize> npy_sizes;
    std::string first_picture;
};

/// Tensors of seeded random numbers from 0 to 1 in the planned sizes.
std::vector<NetInput> random_inputs(const std::vector<ModelInput>& inputs, unsigned int seed);

}  // namespace tool
