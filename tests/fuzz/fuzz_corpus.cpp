// Writes the first inputs of fuzz_loader into a folder: for each version a network of all layers
// that it knows, and each of these layers in a file of its own.
#include <modelkit/net_builder.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "loader_input.h"

namespace {

using modelkit::NetBuilder;

using Step = std::function<int(NetBuilder&, int)>;

// What a version can hold, each step reading the layer before.
std::vector<std::pair<std::string, Step>> steps_of(unsigned int version) {
    std::vector<std::pair<std::string, Step>> steps = {
        {"conv", [](NetBuilder& net, int at) { return net.conv(at, 4, 3, 1, 1, 2); }},
        {"depthwise", [](NetBuilder& net, int at) { return net.depthwise(at, 3, 1, 1); }},
        {"deconvolution",
         [](NetBuilder& net, int at) { return net.deconvolution(at, 4, 2, 1, 1); }},
        {"eltwise",
         [](NetBuilder& net, int at) {
             return net.eltwise({at, at, 0});
         }},
        {"pooling", [](NetBuilder& net, int at) { return net.pooling(at, 1, 1, 1); }},
        {"batchnorm", [](NetBuilder& net, int at) { return net.batchnorm(at); }},
        {"instance_normalization",
         [](NetBuilder& net, int at) { return net.instance_normalization(at); }},
        {"activation", [](NetBuilder& net, int at) { return net.activation(at, 1, 2.0, 1.0); }},
        {"region", [](NetBuilder& net, int at) { return net.region(at, 1, 2, 3); }},
        {"channel_shuffle", [](NetBuilder& net, int at) { return net.channel_shuffle(at); }},
        {"concat",
         [](NetBuilder& net, int at) {
             return net.concat({at, 0});
         }},
        {"upsampling", [](NetBuilder& net, int at) { return net.upsampling(at, 2.0); }},
        {"pixel_shuffle", [](NetBuilder& net, int at) { return net.pixel_shuffle(at, 2.0); }},
    };
    if (version >= 10003) {
        steps.push_back({"depthwise_deconvolution", [](NetBuilder& net, int at) {
                             return net.depthwise_deconvolution(at, 3, 1, 1);
                         }});
    }
    if (version >= 10008) {
        steps.push_back({"tensor_input", [](NetBuilder& net, int) {
                             return net.tensor_input({1, 6});
                         }});
        steps.push_back({"reshape", [](NetBuilder& net, int at) { return net.reshape(at, {6}); }});
        steps.push_back({"transpose", [](NetBuilder& net, int at) {
                             return net.transpose(at, {1, 0}, {6, 1});
                         }});
        steps.push_back(
            {"squeeze", [](NetBuilder& net, int at) { return net.squeeze(at, 1, {6}); }});
        steps.push_back({"fully_connected",
                         [](NetBuilder& net, int at) { return net.fully_connected(at, 6, 2); }});
        steps.push_back(
            {"lstm", [](NetBuilder& net, int at) { return net.lstm(at, 2, 2, true, true, 2); }});
        steps.push_back({"lstm_one_direction", [](NetBuilder& net, int at) {
                             return net.lstm(at, 4, 1, false, false, 1);
                         }});
    }
    if (version >= 10011) {
        steps.push_back({"tensor_activation",
                         [](NetBuilder& net, int at) { return net.tensor_activation(at, 3); }});
    }
    return steps;
}

bool save(const std::string& path, const NetBuilder& net, unsigned char version_index,
          unsigned char flags) {
    std::vector<unsigned char> file;
    modelkit::Status status = net.write(file);
    if (status) {
        std::vector<unsigned char> bytes = {flags, version_index};
        if ((flags & loader_input::WHOLE_FILE) != 0) bytes.pop_back();
        const bool whole = (flags & loader_input::WHOLE_FILE) != 0;
        bytes.insert(bytes.end(), file.begin() + (whole ? 0 : 1000), file.end());
        status = modelkit::save_bytes(path, bytes);
    }
    if (!status) std::fprintf(stderr, "%s: %s\n", path.c_str(), status.message().c_str());
    return status.ok();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_corpus FOLDER\n");
        return 2;
    }
    const std::string folder = argv[1];
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    bool good = true;
    for (unsigned char i = 0; i < loader_input::VERSION_COUNT; ++i) {
        modelkit::ModelHeader header;
        header.version = loader_input::VERSIONS[i];
        if (header.version < 10000) continue;
        const std::string prefix = folder + "/" + std::to_string(header.version) + "_";
        NetBuilder all(header);
        int last = all.input(4);
        for (const auto& [name, step] : steps_of(header.version)) {
            last = step(all, last);
            NetBuilder one(header);
            step(one, name.rfind("tensor", 0) == 0 ? one.tensor_input({1, 6}) : one.input(4));
            good = save(prefix + name, one, i, 0) && good;
        }
        good = save(prefix + "all", all, i, 0) && good;
        good = save(prefix + "all_sorted", all, i, loader_input::SORTED) && good;
        good = save(prefix + "all_whole", all, i, loader_input::WHOLE_FILE) && good;
    }
    return good ? 0 : 1;
}
