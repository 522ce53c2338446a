#include "modelkit/model_writer.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <system_error>

namespace modelkit {
namespace {

bool same(const shape3& a, const shape3& b) {
    return a.scale_x == b.scale_x && a.scale_y == b.scale_y && a.channels == b.channels;
}

bool same(const tensor28& a, const tensor28& b) {
    return a.kind == b.kind && a.rank == b.rank && std::equal(a.dims, a.dims + 11, b.dims);
}

// Puts the members of one record behind a file. A member that the file has no place for, or that
// contradicts another, is noted as a problem; the first one counts.
class Payload {
public:
    Payload(const ZQLayerInfo& record, unsigned int version, const ArraySource& source,
            std::vector<unsigned char>& bytes)
        : version(version), source(source), bytes(bytes) {
        prefix =
            "layer " + std::to_string(record.id) + " (" + zq_layer_type_name(record.type) + "): ";
    }

    const unsigned int version;
    const ArraySource& source;
    std::vector<unsigned char>& bytes;
    std::string problem;

    bool legacy() const { return version == 10000; }

    void refuse(const std::string& text) {
        if (problem.empty()) problem = prefix + text;
    }

    void expect(bool condition, const std::string& text) {
        if (!condition) refuse(text);
    }

    void number(unsigned int value) {
        bytes.push_back(static_cast<unsigned char>(value & 0xffu));
        bytes.push_back(static_cast<unsigned char>((value >> 8) & 0xffu));
    }

    void numbers(const unsigned short* values, size_t count) {
        const size_t before = bytes.size();
        bytes.resize(before + 2 * count);
        for (size_t i = 0; i < count; ++i) {
            bytes[before + 2 * i] = static_cast<unsigned char>(values[i] & 0xffu);
            bytes[before + 2 * i + 1] = static_cast<unsigned char>((values[i] >> 8) & 0xffu);
        }
    }

    void shape(const shape3& shape) {
        number(shape.scale_x);
        number(shape.scale_y);
        number(shape.channels);
    }

    void tensor(const tensor28& tensor) {
        number(tensor.kind & 0xffffu);
        number(tensor.kind >> 16);
        number(tensor.rank);
        numbers(tensor.dims, 11);
    }

    // `name` tells the array in the refusal.
    void halves(const std::string& name, uint64_t expected, const unsigned short* halves,
                const float* floats, size_t count) {
        if (count != expected) {
            refuse(name + ": " + std::to_string(expected) + " numbers expected, found " +
                   std::to_string(count));
            return;
        }
        if (count == 0) {
            expect(halves == nullptr && floats == nullptr, name + ": an array of no numbers");
            return;
        }
        if (source && halves == nullptr && floats == nullptr) {
            size_t put = 0;
            source(name, count, [&](const unsigned short* values, size_t more) {
                numbers(values, more);
                put += more;
            });
            expect(put == count, name + ": " + std::to_string(count) +
                                     " numbers expected, the source gave " + std::to_string(put));
            return;
        }
        if (halves == nullptr || floats == nullptr) {
            refuse(name + ": halves and floats expected, found none");
            return;
        }
        for (size_t i = 0; i < count; ++i) {
            const unsigned int meant = Tarno::half_to_float_bits(halves[i]);
            if (std::memcmp(&meant, &floats[i], sizeof(meant)) != 0) {
                refuse(name + ": float " + std::to_string(i) + " is not what its half means");
                return;
            }
        }
        numbers(halves, count);
    }

    // A member that only newer files have.
    void number_since(unsigned int since, const char* name, unsigned int value) {
        if (version >= since) {
            number(value);
        } else {
            expect(value == 0, std::string(name) + ": " + std::to_string(value) +
                                   " has no place in a file of version " + std::to_string(version) +
                                   ", before " + std::to_string(since));
        }
    }

    // Where the member is missing the record says 0.
    void groups_since(unsigned int since, unsigned int groups) {
        number_since(since, "groups", groups);
        if (version >= since) expect(groups != 0, "groups: 1 or more expected, found 0");
    }

private:
    std::string prefix;
};

void head(Payload& p, const ZQLayerInfo& r) {
    p.number(r.id);
    p.number(r.bottoms[0]);
}

void head_with_shapes(Payload& p, const ZQLayerInfo& r) {
    head(p, r);
    p.shape(*r.out_shape);
    p.shape(*r.in_shape);
}

void head_with_one_shape(Payload& p, const ZQLayerInfo& r) {
    head(p, r);
    p.shape(*r.in_shape);
    p.expect(same(*r.in_shape, *r.out_shape), "out_shape: a copy of in_shape expected");
}

void head_with_bottoms(Payload& p, const ZQLayerInfo& r) {
    p.number(r.id);
    p.number(r.bottom_count);
    p.numbers(r.bottoms, ZQ_MAX_BOTTOMS);
}

void tensors(Payload& p, const ZQFreezedLayerInfo& r) {
    p.tensor(r.in_tensors[0]);
    p.tensor(r.out_tensor);
}

template <typename Record>
void window(Payload& p, const Record& r) {
    p.number(r.kernel_w);
    p.number(r.kernel_h);
    p.number(r.pad_w);
    p.number(r.pad_h);
    p.number(r.stride_w);
    p.number(r.stride_h);
}

template <typename Record>
void dilation(Payload& p, const Record& r) {
    p.number(r.dilation_w);
    p.number(r.dilation_h);
}

template <typename Record>
void bias_flag_and_activation(Payload& p, const Record& r) {
    p.number(r.has_bias);
    p.number(r.activation);
}

template <typename Record>
void weights_and_bias(Payload& p, const Record& r, uint64_t weights, uint64_t bias) {
    p.halves("weights", weights, r.weights_half, r.weights, r.weights_count);
    p.halves("bias", bias, r.bias_half, r.bias, r.bias_count);
}

template <typename Record>
uint64_t kernel_size(const Record& r) {
    return uint64_t{r.kernel_w} * r.kernel_h;
}

void write(Payload& p, const ZQLayerInfo_Input& r) {
    p.number(r.id);
    p.shape(*r.out_shape);
    p.number(r.input_index);
    p.expect(same(*r.in_shape, shape3{}), "in_shape: zeros expected in an input");
}

void write(Payload& p, const ZQLayerInfo_Conv2D& r) {
    head_with_shapes(p, r);
    window(p, r);
    dilation(p, r);
    bias_flag_and_activation(p, r);
    p.groups_since(10001, r.groups);
    if (p.legacy()) {
        p.expect(std::all_of(r.reserved, r.reserved + 10, [](unsigned short v) { return v == 0; }),
                 "reserved: has no place in a file of version 10000");
    } else {
        p.numbers(r.reserved, 10);
    }
    const uint64_t in_of_group = r.in_shape->channels / r.effective_groups();
    weights_and_bias(p, r, in_of_group * r.out_shape->channels * kernel_size(r),
                     r.out_shape->channels);
}

void write(Payload& p, const ZQLayerInfo_Conv2DTranspose& r) {
    head_with_shapes(p, r);
    window(p, r);
    bias_flag_and_activation(p, r);
    p.groups_since(10003, r.groups);
    const uint64_t product = kernel_size(r) * r.in_shape->channels * r.out_shape->channels;
    weights_and_bias(p, r, product / r.effective_groups(), r.out_shape->channels);
}

template <typename Record>
void depthwise(Payload& p, const Record& r) {
    head_with_shapes(p, r);
    p.number(r.depth_multiplier);
    window(p, r);
    dilation(p, r);
    bias_flag_and_activation(p, r);
    weights_and_bias(p, r, uint64_t{r.in_shape->channels} * r.depth_multiplier * kernel_size(r),
                     r.out_shape->channels);
}

void write(Payload& p, const ZQLayerInfo_DepthWiseConv2D& r) {
    depthwise(p, r);
}

void write(Payload& p, const ZQLayerInfo_DepthWiseConv2DTranspose& r) {
    depthwise(p, r);
}

void write(Payload& p, const ZQLayerInfo_PixelShuffle& r) {
    head_with_shapes(p, r);
    p.number(r.upscale_factor);
}

void write(Payload& p, const ZQLayerInfo_Pooling& r) {
    head_with_shapes(p, r);
    window(p, r);
    p.number(r.pool_type);
}

void write(Payload& p, const ZQLayerInfo_InstanceNormalization& r) {
    head_with_one_shape(p, r);
}

void write(Payload& p, const ZQLayerInfo_BatchNormalization& r) {
    head_with_one_shape(p, r);
    const uint64_t channels = r.in_shape->channels;
    p.halves("bn_a", channels, r.bn_a_half, r.bn_a, r.bn_count);
    p.halves("bn_b", channels, r.bn_b_half, r.bn_b, r.bn_count);
    p.halves("bn_c", channels, r.bn_c_half, r.bn_c, r.bn_count);
    p.halves("bn_d", channels, r.bn_d_half, r.bn_d, r.bn_count);
}

void write(Payload& p, const ZQLayerInfo_Activation& r) {
    head_with_one_shape(p, r);
    p.number(r.activation_type);
    p.number(r.alpha);
    p.number(r.beta);
}

void write(Payload& p, const ZQLayerInfo_Region& r) {
    head_with_one_shape(p, r);
    p.number(r.region_a);
    p.number(r.region_b);
    p.number(r.region_c);
}

void write(Payload& p, const ZQLayerInfo_ElementWiseOperator& r) {
    head_with_bottoms(p, r);
    // The file holds one shape for the output and all inputs. Before version 10001 the reader keeps
    // it as the first input shape too, also when nothing is read.
    p.shape(*r.out_shape);
    const unsigned int kept =
        p.legacy() ? std::max<unsigned int>(1, r.bottom_count) : r.bottom_count;
    for (unsigned int i = 0; i < ZQ_MAX_BOTTOMS; ++i) {
        p.expect(same(r.in_shapes[i], i < kept ? *r.out_shape : shape3{}),
                 "in_shapes: copies of out_shape for the bottoms expected, and zeros behind");
    }
    p.number(r.operator_type);
    p.number(r.activation);
}

void write(Payload& p, const ZQLayerInfo_Concatenate& r) {
    head_with_bottoms(p, r);
    for (unsigned int i = 0; i < ZQ_MAX_BOTTOMS; ++i) p.shape(r.in_shapes[i]);
    p.shape(*r.out_shape);
    p.number(r.axis);
}

void write(Payload& p, const ZQLayerInfo_Upsampling& r) {
    head(p, r);
    p.shape(*r.in_shape);
    p.shape(*r.out_shape);
    p.number(r.scale);
    p.number(r.mode);
    p.number_since(10007, "align", r.align);
}

void write(Payload& p, const ZQLayerInfo_ChannelShuffle& r) {
    head_with_one_shape(p, r);
    p.numbers(r.reserved, 10);
    if (r.permutation_count != r.in_shape->channels ||
        (r.permutation == nullptr) != (r.permutation_count == 0)) {
        p.refuse("permutation: " + std::to_string(r.in_shape->channels) +
                 " numbers expected, found " + std::to_string(r.permutation_count));
        return;
    }
    p.numbers(r.permutation, r.permutation_count);
}

void write(Payload& p, const ZQLayerInfo_TensorInput& r) {
    p.number(r.id);
    p.number(r.input_index);
    p.tensor(r.out_tensor);
    p.expect(same(r.in_tensors[0], tensor28{}), "in_tensors: zeros expected in an input");
}

void write(Payload& p, const ZQLayerInfo_TensorReshape& r) {
    head(p, r);
    tensors(p, r);
}

void write(Payload& p, const ZQLayerInfo_TensorTranspose& r) {
    head(p, r);
    tensors(p, r);
    p.numbers(r.axes, 10);
}

void write(Payload& p, const ZQLayerInfo_TensorSqueeze& r) {
    head(p, r);
    p.number(r.axis);
    tensors(p, r);
}

void write(Payload& p, const ZQLayerInfo_FullConnection& r) {
    head(p, r);
    p.number(r.num_input);
    p.number(r.num_output);
    p.number(r.has_bias);
    tensors(p, r);
    weights_and_bias(p, r, uint64_t{r.num_input} * r.num_output,
                     r.has_bias != 0 ? r.num_output : 0);
}

void write(Payload& p, const ZQLayerInfo_LSTM& r) {
    head(p, r);
    p.number(r.input_size);
    p.number(r.hidden_size);
    p.number(r.num_layers);
    p.number(r.has_bias);
    p.number(r.bidirectional);
    p.number_since(10009, "lstm_flag", r.lstm_flag);
    tensors(p, r);

    const size_t layers = r.hidden_size == 0 ? 0 : r.num_layers;
    if (r.list_count != layers) {
        p.refuse("list_count: " + std::to_string(layers) + " expected, found " +
                 std::to_string(r.list_count));
        return;
    }
    const uint64_t gates = uint64_t{4} * r.hidden_size;
    const bool bias = r.has_bias != 0;
    const bool reverse = r.bidirectional != 0;
    struct List {
        const char* name;
        unsigned short* const* halves;
        const float* const* floats;
        uint64_t expected;
        size_t count;
        bool present;
    };
    const List lists[] = {
        {"w_ih", r.w_ih_half, r.w_ih, gates * r.input_size, r.w_ih_count, true},
        {"w_hh", r.w_hh_half, r.w_hh, gates * r.hidden_size, r.w_hh_count, true},
        {"b_ih", r.b_ih_half, r.b_ih, gates, r.bias_count, bias},
        {"b_hh", r.b_hh_half, r.b_hh, gates, r.bias_count, bias},
        {"w_ih_reverse", r.w_ih_reverse_half, r.w_ih_reverse, gates * r.input_size, r.w_ih_count,
         reverse},
        {"w_hh_reverse", r.w_hh_reverse_half, r.w_hh_reverse, gates * r.hidden_size, r.w_hh_count,
         reverse},
        {"b_ih_reverse", r.b_ih_reverse_half, r.b_ih_reverse, gates, r.bias_count, reverse && bias},
        {"b_hh_reverse", r.b_hh_reverse_half, r.b_hh_reverse, gates, r.bias_count, reverse && bias},
    };
    for (const List& list : lists) {
        const bool wanted = list.present && layers != 0;
        if (p.source && list.halves == nullptr && list.floats == nullptr) continue;
        if ((list.halves != nullptr) != wanted || (list.floats != nullptr) != wanted) {
            p.refuse(std::string(list.name) + ": " + (wanted ? "lists" : "no lists") + " expected");
            return;
        }
    }
    for (size_t layer = 0; layer < layers; ++layer) {
        for (const List& list : lists) {
            if (!list.present) continue;
            p.halves(std::string(list.name) + "[" + std::to_string(layer) + "]", list.expected,
                     list.halves == nullptr ? nullptr : list.halves[layer],
                     list.floats == nullptr ? nullptr : list.floats[layer], list.count);
        }
    }
}

void write(Payload& p, const ZQLayerInfo_TensorActivation& r) {
    head(p, r);
    p.tensor(r.in_tensors[0]);
    p.expect(same(r.in_tensors[0], r.out_tensor), "out_tensor: a copy of in_tensors[0] expected");
    p.number(r.activation_type);
    p.number(r.alpha);
    p.number(r.beta);
}

// What a record's constructor has set and nobody may change.
void check_frame(Payload& p, const ZQLayerInfo& r) {
    p.expect(r.top_count == 1, "top_count: 1 expected, found " + std::to_string(r.top_count));
    const bool many =
        r.type == ZQLayerType_ElementWiseOperator || r.type == ZQLayerType_Concatenate;
    const bool input = r.type == ZQLayerType_Input || r.type == ZQLayerType_TensorInput;
    if (many) {
        p.expect(r.bottom_count <= ZQ_MAX_BOTTOMS,
                 "bottom_count: at most 10 expected, found " + std::to_string(r.bottom_count));
    } else {
        const unsigned int expected = input ? 0 : 1;
        p.expect(r.bottom_count == expected, "bottom_count: " + std::to_string(expected) +
                                                 " expected, found " +
                                                 std::to_string(r.bottom_count));
    }
    p.expect(input || r.bottoms != nullptr, "bottoms: an array expected");
    if (const auto* frozen = dynamic_cast<const ZQFreezedLayerInfo*>(&r)) {
        for (unsigned int i = 1; i < 10; ++i) {
            p.expect(same(frozen->in_tensors[i], tensor28{}),
                     "in_tensors: zeros expected behind the first");
        }
    } else {
        p.expect(r.in_shape != nullptr && r.out_shape != nullptr, "shapes: arrays expected");
    }
}

template <typename Record>
void write_as(Payload& p, const ZQLayerInfo& record) {
    const auto* r = dynamic_cast<const Record*>(&record);
    if (r == nullptr) {
        p.refuse("type: the record is not of the class of type " + std::to_string(record.type));
        return;
    }
    check_frame(p, *r);
    if (p.problem.empty()) write(p, *r);
}

void write_record(Payload& p, const ZQLayerInfo& r) {
    switch (r.type) {
        case ZQLayerType_Input:
            return write_as<ZQLayerInfo_Input>(p, r);
        case ZQLayerType_Conv2D:
            return write_as<ZQLayerInfo_Conv2D>(p, r);
        case ZQLayerType_Conv2DTranspose:
            return write_as<ZQLayerInfo_Conv2DTranspose>(p, r);
        case ZQLayerType_DepthWiseConv2D:
            return write_as<ZQLayerInfo_DepthWiseConv2D>(p, r);
        case ZQLayerType_PixelShuffle:
            return write_as<ZQLayerInfo_PixelShuffle>(p, r);
        case ZQLayerType_Pooling:
            return write_as<ZQLayerInfo_Pooling>(p, r);
        case ZQLayerType_InstanceNormalization:
            return write_as<ZQLayerInfo_InstanceNormalization>(p, r);
        case ZQLayerType_BatchNormalization:
            return write_as<ZQLayerInfo_BatchNormalization>(p, r);
        case ZQLayerType_Activation:
            return write_as<ZQLayerInfo_Activation>(p, r);
        case ZQLayerType_Region:
            return write_as<ZQLayerInfo_Region>(p, r);
        case ZQLayerType_ElementWiseOperator:
            return write_as<ZQLayerInfo_ElementWiseOperator>(p, r);
        case ZQLayerType_Concatenate:
            return write_as<ZQLayerInfo_Concatenate>(p, r);
        case ZQLayerType_Upsampling:
            return write_as<ZQLayerInfo_Upsampling>(p, r);
        case ZQLayerType_ChannelShuffle:
            return write_as<ZQLayerInfo_ChannelShuffle>(p, r);
        case ZQLayerType_DepthWiseConv2DTranspose:
            return write_as<ZQLayerInfo_DepthWiseConv2DTranspose>(p, r);
        case ZQLayerType_TensorInput:
            return write_as<ZQLayerInfo_TensorInput>(p, r);
        case ZQLayerType_TensorReshape:
            return write_as<ZQLayerInfo_TensorReshape>(p, r);
        case ZQLayerType_TensorTranspose:
            return write_as<ZQLayerInfo_TensorTranspose>(p, r);
        case ZQLayerType_TensorSqueeze:
            return write_as<ZQLayerInfo_TensorSqueeze>(p, r);
        case ZQLayerType_FullConnection:
            return write_as<ZQLayerInfo_FullConnection>(p, r);
        case ZQLayerType_LSTM:
            return write_as<ZQLayerInfo_LSTM>(p, r);
        case ZQLayerType_TensorActivation:
            return write_as<ZQLayerInfo_TensorActivation>(p, r);
        default:
            p.refuse("type: " + std::to_string(r.type) + " is not in use");
    }
}

void append_u16(std::vector<unsigned char>& bytes, unsigned int value) {
    bytes.push_back(static_cast<unsigned char>(value & 0xffu));
    bytes.push_back(static_cast<unsigned char>((value >> 8) & 0xffu));
}

void append_u32(std::vector<unsigned char>& bytes, unsigned int value) {
    append_u16(bytes, value & 0xffffu);
    append_u16(bytes, value >> 16);
}

}  // namespace

ModelHeader header_of(const ZQNetLoader& loader) {
    ModelHeader header;
    header.version = loader.getVersion();
    header.gesture_mode = loader.getGestureMode();
    header.application_type = loader.getApplicationType();
    header.model_id = loader.getModelID();
    header.base_w = loader.getModelBaseW();
    header.base_h = loader.getModelBaseH();
    std::copy_n(loader.header_words() + 7, header.reserved.size(), header.reserved.begin());
    return header;
}

ModelWriter::ModelWriter(const ModelHeader& header) : version(header.version) {
    append_u32(file, 0x5555);
    append_u32(file, header.version);
    append_u32(file, header.gesture_mode);
    append_u32(file, header.application_type);
    append_u32(file, header.model_id);
    append_u32(file, header.base_w);
    append_u32(file, header.base_h);
    for (const unsigned int word : header.reserved) append_u32(file, word);
    append_u32(file, 0xaaaa);
}

void ModelWriter::reserve(size_t bytes) {
    if (file.capacity() - file.size() >= bytes) return;
    // Half as much again, so that layer after layer does not copy all before it.
    file.reserve(std::max(file.size() + bytes, file.size() + file.size() / 2));
}

Status ModelWriter::add(const ZQLayerInfo& record) {
    return add(record, ArraySource());
}

Status ModelWriter::add(const ZQLayerInfo& record, const ArraySource& source) {
    // Takes off what was appended, unless it is kept.
    struct Rollback {
        std::vector<unsigned char>& file;
        size_t size;
        ~Rollback() { file.resize(std::min(size, file.size())); }
    } rollback = {file, file.size()};
    append_u16(file, 0x5555);
    append_u16(file, record.type);
    Payload payload(record, version, source, file);
    const unsigned int since = zq_layer_type_since(record.type);
    payload.expect(version >= 10000, "a file of version " + std::to_string(version) +
                                         " can't be read: 10000 is the lowest");
    payload.expect(version >= since, "a file of version " + std::to_string(since) +
                                         " or above expected, this one has version " +
                                         std::to_string(version));
    payload.expect(ids.count(record.id) == 0, "id: another layer of the file has it");
    if (payload.problem.empty()) write_record(payload, record);
    if (!payload.problem.empty()) return Status::failure(payload.problem);
    append_u16(file, 0xaaaa);
    ids.insert(record.id);
    rollback.size = file.size();
    return Status::success();
}

Status ModelWriter::add_all(const ZQNetLoader& loader) {
    const auto records = loader.getLayersInfo();
    for (const unsigned short id : loader.getSequentialLayers()) {
        const auto found = records.find(id);
        if (found == records.end()) {
            return Status::failure("layer " + std::to_string(id) + ": has no record");
        }
        const Status status = add(*found->second);
        if (!status) return status;
    }
    return Status::success();
}

Status ModelWriter::save(const std::string& path) const {
    return save_bytes(path, file);
}

Status save_bytes(const std::string& path, const std::vector<unsigned char>& bytes) {
    // Beside the target, so that the move stays on one file system.
    const std::string partial = path + "." + std::to_string(std::random_device{}()) + ".part";
    FILE* out = std::fopen(partial.c_str(), "wb");
    if (out == nullptr) return Status::failure(partial + ": can't be created");
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
    const bool closed = std::fclose(out) == 0;
    std::error_code error;
    if (!written || !closed) {
        std::filesystem::remove(partial, error);
        return Status::failure(partial + ": can't be written");
    }
    std::filesystem::rename(partial, path, error);
    if (error) {
        std::error_code ignored;
        std::filesystem::remove(partial, ignored);
        return Status::failure(path + ": " + error.message());
    }
    return Status::success();
}

}  // namespace modelkit
