#include "modelkit/names.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace modelkit {

namespace {

constexpr char HEAD[] = "tarno names 1";
constexpr size_t MOST_BYTES = size_t{64} << 20;

/// FNV-1a: enough to tell that the model is another one.
class Hash {
public:
    void add(const char* bytes, size_t count) {
        for (size_t i = 0; i < count; ++i) {
            state = (state ^ static_cast<unsigned char>(bytes[i])) * 0x100000001b3u;
        }
        size += count;
    }
    std::string text() const {
        char buffer[48];
        std::snprintf(buffer, sizeof(buffer), "model %llu %016llx",
                      static_cast<unsigned long long>(size),
                      static_cast<unsigned long long>(state));
        return buffer;
    }

private:
    uint64_t state = 0xcbf29ce484222325u;
    uint64_t size = 0;
};

bool hash_of_file(const std::string& path, std::string& text) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> buffer(size_t{1} << 16);
    Hash hash;
    while (file) {
        file.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        hash.add(buffer.data(), static_cast<size_t>(file.gcount()));
    }
    text = hash.text();
    return file.eof();
}

std::string one_line(std::string text) {
    for (char& letter : text) {
        if (static_cast<unsigned char>(letter) < 32 || letter == 127) letter = '?';
    }
    return text;
}

std::string dims_text(const std::vector<int64_t>& dims) {
    std::string text;
    for (const int64_t size : dims) text += (text.empty() ? "" : "x") + std::to_string(size);
    return text.empty() ? "scalar" : text;
}

bool parse_dims(const std::string& text, std::vector<int64_t>& dims) {
    dims.clear();
    if (text == "scalar") return true;
    if (text.back() == 'x') return false;  // a part that getline would not see
    std::istringstream stream(text);
    std::string part;
    while (std::getline(stream, part, 'x')) {
        if (part.empty() || part.size() > 9 ||
            part.find_first_not_of("0123456789") != std::string::npos) {
            return false;
        }
        dims.push_back(std::stoll(part));
    }
    return !dims.empty();
}

bool parse_line(const std::string& line, ModelNames& names) {
    std::istringstream stream(line);
    std::string kind;
    int layer = -1;
    if (!(stream >> kind >> layer) || layer < 0 || layer > 65535) return false;
    std::string dims;
    if (kind != "layer" && !(stream >> dims)) return false;
    std::string name;
    stream.get();  // the blank
    std::getline(stream, name);
    if (kind == "layer") {
        names.layers[layer] = name;
        return true;
    }
    ModelNames::Tensor tensor = {layer, {}, name};
    if (!parse_dims(dims, tensor.dims)) return false;
    if (kind == "input") names.inputs.push_back(tensor);
    if (kind == "output") names.outputs.push_back(tensor);
    return kind == "input" || kind == "output";
}

}  // namespace

std::string names_path(const std::string& model_path) {
    return model_path + ".names";
}

std::string names_text(const std::vector<unsigned char>& model, const ModelNames& names) {
    Hash hash;
    hash.add(reinterpret_cast<const char*>(model.data()), model.size());
    std::string text = std::string(HEAD) + '\n' + hash.text() + '\n';
    const auto add_tensors = [&text](const char* kind,
                                     const std::vector<ModelNames::Tensor>& list) {
        for (const ModelNames::Tensor& tensor : list) {
            text += std::string(kind) + ' ' + std::to_string(tensor.layer) + ' ' +
                    dims_text(tensor.dims) + ' ' + one_line(tensor.name) + '\n';
        }
    };
    add_tensors("input", names.inputs);
    add_tensors("output", names.outputs);
    for (const auto& [layer, name] : names.layers) {
        text += "layer " + std::to_string(layer) + ' ' + one_line(name) + '\n';
    }
    return text;
}

bool load_names(const std::string& model_path, ModelNames& names) {
    names = ModelNames();
    std::ifstream file(names_path(model_path), std::ios::binary);
    std::string line;
    std::string hash;
    if (!std::getline(file, line) || line != HEAD || !std::getline(file, line) ||
        !hash_of_file(model_path, hash) || line != hash) {
        return false;
    }
    size_t bytes = 0;
    while (std::getline(file, line)) {
        bytes += line.size();
        if (bytes <= MOST_BYTES && parse_line(line, names)) continue;
        names = ModelNames();
        return false;
    }
    return true;
}

}  // namespace modelkit
