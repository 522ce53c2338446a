#include "net_input.h"

#include <climits>
#include <new>
#include <random>

#include "errors.h"
#include "npy.h"
#include "picture.h"

namespace tool {
namespace {

/// Orders of channels, by the names of --pixel-type. `code` is what Mat::from_pixels knows it by.
struct PixelOrder {
    const char* name;
    int channels;
    int code;
};

constexpr PixelOrder orders[] = {{"rgb", 3, 1}, {"bgr", 3, 2}, {"gray", 1, 4}, {"rgba", 4, 8}};

const PixelOrder& order_of(const ModelFile& model, const ModelInput& input,
                           const std::string& pixel_type) {
    for (const PixelOrder& order : orders) {
        const bool wanted =
            pixel_type.empty() ? order.channels == input.channels : pixel_type == order.name;
        if (!wanted) continue;
        if (order.channels != input.channels) {
            throw CommandError(layer_fault(
                model.path, input.id, input.type,
                "expected a picture of " + std::to_string(input.channels) + " channels, found " +
                    std::to_string(order.channels) + " of --pixel-type " + pixel_type));
        }
        return order;
    }
    throw CommandError(layer_fault(model.path, input.id, input.type,
                                   "expected an input of 1, 3 or 4 channels for a picture, found " +
                                       std::to_string(input.channels) +
                                       " (an .npy file can have any number)"));
}

/// Decodes into the channels from which Mat::from_pixels has a way to `order`, and says the way.
Picture read_for(const std::string& path, const PixelOrder& order, int& code) {
    constexpr int rgb = 1, grey = 4, rgba = 8;
    if (order.code == rgba) {
        code = rgba;
        return read_picture(path, 4);
    }
    // Grey with alpha is taken as grey.
    const int in_file = picture_info(path).channels;
    const int decoded = in_file <= 2 ? 1 : in_file;
    const int source = decoded == 1 ? grey : decoded == 3 ? rgb : rgba;
    code = source == order.code ? source : source | order.code << 16;
    return read_picture(path, decoded);
}

/// The value of channel q.
float of_channel(const std::vector<float>& values, int q, float missing) {
    if (values.empty()) return missing;
    return values[values.size() == 1 ? 0 : static_cast<size_t>(q)];
}

/// Every element. The library's own routine leaves the last h * w % 4 of a channel as they are.
void subtract_mean_and_scale(TarnoCPU::Mat& tensor, const std::vector<float>& mean,
                             const std::vector<float>& norm) {
    const int64_t plane = int64_t{tensor.shape.h} * tensor.shape.w;
    for (int q = 0; q < tensor.shape.c; ++q) {
        const float m = of_channel(mean, q, 0.0f);
        const float n = of_channel(norm, q, 1.0f);
        float* x = tensor.ptr<float>() + q * plane;
        for (int64_t i = 0; i < plane; ++i) x[i] = (x[i] - m) * n;
    }
}

void check_count(const char* option, const std::vector<float>& values, const ModelFile& model,
                 const ModelInput& input, int64_t channels) {
    if (values.size() <= 1 || static_cast<int64_t>(values.size()) == channels) return;
    throw CommandError(layer_fault(model.path, input.id, input.type,
                                   "expected 1 or " + std::to_string(channels) + " numbers for " +
                                       option + ", found " + std::to_string(values.size())));
}

std::string shape_text(const std::vector<int64_t>& shape) {
    std::string text;
    for (const int64_t size : shape) text += (text.empty() ? "" : "x") + std::to_string(size);
    return text;
}

/// Where an array of 1 to 3 dimensions goes. Throws CommandError when it is not what the input
/// takes.
TensorSize size_of_array(const std::string& path, const std::vector<int64_t>& shape,
                         const ModelInput& input) {
    const auto fail = [&](const std::string& expected) {
        throw CommandError(path + ": " + layer_text(input.id, input.type) + ": expected " +
                           expected + ", found an array of " + shape_text(shape));
    };
    for (const int64_t size : shape) {
        if (size > INT_MAX) fail("dimensions below 2147483648");
    }
    const size_t rank = shape.size();
    if (!input.is_tensor) {
        const bool has_channels = rank == 3 || (rank == 2 && input.channels == 1);
        if (!has_channels) fail("an array of channels, rows and columns");
        const TensorSize size = rank == 3 ? TensorSize{shape[0], shape[1], shape[2]}
                                          : TensorSize{1, shape[0], shape[1]};
        if (size.c != input.channels) fail(std::to_string(input.channels) + " channels");
        return size;
    }

    const TensorSize size = rank == 1   ? TensorSize{1, 1, shape[0]}
                            : rank == 2 ? TensorSize{shape[0], 1, shape[1]}
                                        : TensorSize{shape[0], shape[1], shape[2]};
    // The first dimension of two is time, which may be longer or shorter. A 0 is open.
    const auto& dims = input.dims;
    const bool time_first = dims.size() <= 2;
    const int64_t w = dims.empty() ? 0 : dims.back();
    const int64_t h = dims.size() == 3 ? dims[1] : 1;
    const int64_t c = dims.size() == 3 ? dims[0] : 0;
    const bool fits =
        (w == 0 || w == size.w) && (h == 0 || h == size.h) && (time_first || c == 0 || c == size.c);
    if (!fits) {
        fail(time_first ? std::to_string(w) + " numbers for each time step"
                        : "an array of " + shape_text(dims));
    }
    return size;
}

}  // namespace

InputFiles::InputFiles(const ModelFile& model, const std::vector<ModelInput>& inputs,
                       const std::vector<std::string>& paths)
    : model(model), inputs(inputs), paths(paths) {
    if (paths.size() != inputs.size()) {
        throw CommandError(
            model.path + ": expected " + std::to_string(inputs.size()) +
            (inputs.size() == 1 ? " input" : " inputs, in the order of their indices") +
            ", found " + std::to_string(paths.size()));
    }
    for (size_t i = 0; i < paths.size(); ++i) {
        if (is_npy(paths[i])) {
            npy_sizes[inputs[i].index] =
                size_of_array(paths[i], read_npy_shape(paths[i]), inputs[i]);
        } else if (inputs[i].is_tensor) {
            throw CommandError(paths[i] + ": " + layer_text(inputs[i].id, inputs[i].type) +
                               ": expected an .npy file, found another");
        } else {
            picture_info(paths[i]);
            if (first_picture.empty()) first_picture = paths[i];
        }
    }
}

void InputFiles::check(const InputRules& rules) const {
    for (const ModelInput& input : inputs) {
        const auto given = npy_sizes.find(input.index);
        const bool picture = given == npy_sizes.end();
        if (picture) order_of(model, input, rules.pixel_type);
        const int64_t channels = picture ? input.channels : given->second.c;
        check_count("--mean", rules.mean, model, input, channels);
        check_count("--norm", rules.norm, model, input, channels);
    }
}

std::vector<NetInput> InputFiles::load(const InputRules& rules,
                                       const std::vector<ModelInput>& planned) const {
    std::vector<NetInput> loaded;
    for (size_t i = 0; i < planned.size(); ++i) {
        const TensorSize size = *planned[i].size;
        const int w = static_cast<int>(size.w);
        const int h = static_cast<int>(size.h);
        NetInput input;
        input.index = planned[i].index;
        if (npy_sizes.count(input.index) != 0) {
            const NpyArray array = read_npy(paths[i]);
            if (static_cast<int64_t>(array.values.size()) != size.elements()) {
                throw CommandError(paths[i] + ": expected " + std::to_string(size.elements()) +
                                   " numbers, found " + std::to_string(array.values.size()));
            }
            input.tensor =
                TarnoCPU::Mat::from_float_array(array.values.data(), w, h, static_cast<int>(size.c),
                                                TarnoCPU::TensorShape::CHW, nullptr);
            if (input.tensor.empty()) throw std::bad_alloc();
            // An array is taken as it is unless there is a word about it.
            if (!rules.mean.empty() || !rules.norm.empty()) {
                subtract_mean_and_scale(input.tensor, rules.mean, rules.norm);
            }
        } else {
            int code = 0;
            const Picture picture =
                read_for(paths[i], order_of(model, planned[i], rules.pixel_type), code);
            input.tensor = TarnoCPU::Mat::from_pixels_resize(picture.pixels.data(), code, picture.w,
                                                             picture.h, w, h, nullptr);
            if (input.tensor.empty()) throw std::bad_alloc();
            const std::vector<float> norm =
                rules.norm.empty() ? std::vector<float>{1.0f / 255.0f} : rules.norm;
            subtract_mean_and_scale(input.tensor, rules.mean, norm);
        }
        loaded.push_back(input);
    }
    return loaded;
}

std::vector<NetInput> random_inputs(const std::vector<ModelInput>& inputs, unsigned int seed) {
    std::mt19937 engine(seed);
    std::vector<NetInput> made;
    for (const ModelInput& each : inputs) {
        NetInput input;
        input.index = each.index;
        input.tensor =
            TarnoCPU::Mat(TarnoCPU::TensorShape(
                              TarnoCPU::TensorShape::CHW, static_cast<int>(each.size->c),
                              static_cast<int>(each.size->h), static_cast<int>(each.size->w), 4),
                          nullptr);
        if (input.tensor.empty()) throw std::bad_alloc();
        float* values = input.tensor.ptr<float>();
        const int64_t count = input.tensor.shape.total();
        // Whole multiples of 2^-24: the same numbers from every standard library.
        for (int64_t i = 0; i < count; ++i) {
            values[i] = static_cast<float>(engine() >> 8) * 0x1p-24f;
        }
        made.push_back(input);
    }
    return made;
}

}  // namespace tool
