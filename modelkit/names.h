// The names that a model's layers had where it came from, in a file beside the model.
//
// The header's spare words hold 968 bytes, too few for names, and a reader of the format takes what
// stands behind the last record for a record; so the names are kept in PATH.names, which nothing
// needs in order to run the model.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace modelkit {

struct ModelNames {
    struct Tensor {
        int layer = 0;
        std::vector<int64_t> dims;
        std::string name;
    };

    std::map<int, std::string> layers;  ///< by id
    std::vector<Tensor> inputs;         ///< in the order of the input indices
    std::vector<Tensor> outputs;
};

/// "net.zqnet" to "net.zqnet.names".
std::string names_path(const std::string& model_path);

/// The contents of the names' file for a model whose file has these bytes. Names are one line each.
std::string names_text(const std::vector<unsigned char>& model, const ModelNames& names);

/// Reads the names of the model at `model_path`. False when there are none, when they are of
/// another model, or when the file is damaged; `names` is then empty.
bool load_names(const std::string& model_path, ModelNames& names);

}  // namespace modelkit
