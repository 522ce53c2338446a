#include "crossplatform/src/common/src/payload_readers.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "crossplatform/src/common/src/half_float.h"
#include "platform/assertion.h"

namespace {

// The field readers below give true and go on, or leave the reason in `fault` and give false. They
// are chained with `&&` in the order of the file.
class Payload {
public:
    Payload(BoundedReader& in, PayloadFault& fault) : in(in), fault(fault) {}

    bool id(unsigned short& value) {
        if (!number("id", value)) return false;
        fault.id_known = true;
        fault.id = value;
        return true;
    }

    bool number(const char* name, unsigned short& value) { return numbers(name, &value, 1); }

    bool numbers(const char* name, unsigned short* values, size_t count) {
        return in.read(values, count) || too_short(name, uint64_t{count} * 2);
    }

    bool shape(const char* name, shape3& shape) { return shapes(name, &shape, 1); }

    bool shapes(const char* name, shape3* shapes, size_t count) {
        if (in.left() < uint64_t{count} * 6) return too_short(name, uint64_t{count} * 6);
        for (size_t i = 0; i < count; ++i) {
            if (!number(name, shapes[i].scale_x) || !number(name, shapes[i].scale_y) ||
                !number(name, shapes[i].channels)) {
                return false;
            }
        }
        return true;
    }

    bool tensor(const char* name, tensor28& tensor) {
        if (in.left() < 28) return too_short(name, 28);
        return (in.read(tensor.kind) || too_short(name, 4)) && number(name, tensor.rank) &&
               numbers(name, tensor.dims, 11);
    }

    // Takes memory only for what the file still holds.
    bool array(const char* name, uint64_t count, unsigned short*& values, size_t& values_count) {
        if (!holds(name, count, sizeof(unsigned short))) return false;
        if (count == 0) return true;
        const size_t size = static_cast<size_t>(count);
        values = static_cast<unsigned short*>(std::malloc(size * sizeof(unsigned short)));
        if (values == nullptr) return no_memory(name);
        if (!in.read(values, size)) return too_short(name, count * 2);
        values_count = size;
        return true;
    }

    bool halves(const char* name, uint64_t count, unsigned short*& halves, float*& floats,
                size_t& halves_count) {
        if (!holds(name, count, sizeof(float))) return false;
        if (!array(name, count, halves, halves_count)) return false;
        if (count == 0) return true;
        floats = static_cast<float*>(std::malloc(halves_count * sizeof(float)));
        if (floats == nullptr) return no_memory(name);
        Tarno::halves_to_floats(halves, floats, halves_count);
        return true;
    }

    // Whether the file holds `count` numbers of 16 bits, and the host can hold as many elements of
    // `element_size` bytes. `count` is a product of at most four numbers of 16 bits.
    bool holds(const char* name, uint64_t count, size_t element_size) {
        if (count > in.left() / 2) {
            fault.text = std::string(name) + ": " + std::to_string(count) +
                         " numbers of 2 bytes expected, " + std::to_string(in.left()) +
                         " bytes left in the file";
            return false;
        }
        if (count > std::numeric_limits<size_t>::max() / element_size) return no_memory(name);
        return true;
    }

    bool bottoms(ZQLayerInfo& record) {
        if (!number("bottom_count", record.bottom_count)) return false;
        if (record.bottom_count > ZQ_MAX_BOTTOMS) {
            fault.text = "bottom_count: at most " + std::to_string(ZQ_MAX_BOTTOMS) +
                         " expected, found " + std::to_string(record.bottom_count);
            record.bottom_count = 0;
            return false;
        }
        return numbers("bottoms", record.bottoms, ZQ_MAX_BOTTOMS);
    }

    // The number of weights is divided by `groups`.
    bool groups(const ZQLayerInfo& record, unsigned short& groups) {
        if (!number("groups", groups)) return false;
        if (groups != 0) return true;
        Tarno::_LogError("Tarno", "layer %u of type %u (%s) has 0 groups",
                         static_cast<unsigned int>(record.id),
                         static_cast<unsigned int>(record.type), zq_layer_type_name(record.type));
        fault.text = "groups: 1 or more expected, found 0";
        return false;
    }

    bool no_memory(const char* name) {
        fault.text = std::string(name) + ": out of memory";
        return false;
    }

private:
    bool too_short(const char* name, uint64_t size) {
        fault.text = std::string(name) + ": " + std::to_string(size) + " bytes expected, " +
                     std::to_string(in.left()) + " left in the file";
        return false;
    }

    BoundedReader& in;
    PayloadFault& fault;
};

// The beginning that most records with shapes share.
bool read_head(Payload& p, ZQLayerInfo& r) {
    return p.id(r.id) && p.number("bottom", r.bottoms[0]);
}

bool read_head_with_shapes(Payload& p, ZQLayerInfo& r) {
    return read_head(p, r) && p.shape("out_shape", *r.out_shape) &&
           p.shape("in_shape", *r.in_shape);
}

bool read_head_with_one_shape(Payload& p, ZQLayerInfo& r) {
    if (!read_head(p, r) || !p.shape("in_shape", *r.in_shape)) return false;
    *r.out_shape = *r.in_shape;
    return true;
}

bool read_tensors(Payload& p, ZQFreezedLayerInfo& r) {
    return p.tensor("in_tensors", r.in_tensors[0]) && p.tensor("out_tensor", r.out_tensor);
}

template <typename Record>
bool read_window(Payload& p, Record& r) {
    return p.number("kernel_w", r.kernel_w) && p.number("kernel_h", r.kernel_h) &&
           p.number("pad_w", r.pad_w) && p.number("pad_h", r.pad_h) &&
           p.number("stride_w", r.stride_w) && p.number("stride_h", r.stride_h);
}

template <typename Record>
bool read_dilation(Payload& p, Record& r) {
    return p.number("dilation_w", r.dilation_w) && p.number("dilation_h", r.dilation_h);
}

template <typename Record>
bool read_bias_flag_and_activation(Payload& p, Record& r) {
    return p.number("has_bias", r.has_bias) && p.number("activation", r.activation);
}

template <typename Record>
bool read_weights(Payload& p, Record& r, uint64_t count) {
    return p.halves("weights", count, r.weights_half, r.weights, r.weights_count);
}

// There whatever `has_bias` says.
template <typename Record>
bool read_bias(Payload& p, Record& r) {
    return p.halves("bias", r.out_shape->channels, r.bias_half, r.bias, r.bias_count);
}

template <typename Record>
uint64_t kernel_size(const Record& r) {
    return uint64_t{r.kernel_w} * r.kernel_h;
}

bool read(Payload& p, ZQLayerInfo_Input& r, const PayloadRules&) {
    return p.id(r.id) && p.shape("out_shape", *r.out_shape) &&
           p.number("input_index", r.input_index);
}

bool read(Payload& p, ZQLayerInfo_Conv2D& r, const PayloadRules& rules) {
    if (!read_head_with_shapes(p, r) || !read_window(p, r) || !read_dilation(p, r) ||
        !read_bias_flag_and_activation(p, r)) {
        return false;
    }
    if (!rules.legacy) {
        if (!p.groups(r, r.groups) || !p.numbers("reserved", r.reserved, 10)) return false;
    }
    const uint64_t in_of_group = r.in_shape->channels / r.effective_groups();
    return read_weights(p, r, in_of_group * r.out_shape->channels * kernel_size(r)) &&
           read_bias(p, r);
}

bool read(Payload& p, ZQLayerInfo_Conv2DTranspose& r, const PayloadRules& rules) {
    if (!read_head_with_shapes(p, r) || !read_window(p, r) ||
        !read_bias_flag_and_activation(p, r)) {
        return false;
    }
    if (!rules.legacy && rules.version >= 10003 && !p.groups(r, r.groups)) return false;
    // Here the product is divided, not the channels.
    const uint64_t product = kernel_size(r) * r.in_shape->channels * r.out_shape->channels;
    return read_weights(p, r, product / r.effective_groups()) && read_bias(p, r);
}

template <typename Record>
bool read_depthwise(Payload& p, Record& r) {
    return read_head_with_shapes(p, r) && p.number("depth_multiplier", r.depth_multiplier) &&
           read_window(p, r) && read_dilation(p, r) && read_bias_flag_and_activation(p, r) &&
           read_weights(p, r,
                        uint64_t{r.in_shape->channels} * r.depth_multiplier * kernel_size(r)) &&
           read_bias(p, r);
}

bool read(Payload& p, ZQLayerInfo_DepthWiseConv2D& r, const PayloadRules&) {
    return read_depthwise(p, r);
}

bool read(Payload& p, ZQLayerInfo_DepthWiseConv2DTranspose& r, const PayloadRules&) {
    return read_depthwise(p, r);
}

bool read(Payload& p, ZQLayerInfo_PixelShuffle& r, const PayloadRules&) {
    return read_head_with_shapes(p, r) && p.number("upscale_factor", r.upscale_factor);
}

bool read(Payload& p, ZQLayerInfo_Pooling& r, const PayloadRules&) {
    return read_head_with_shapes(p, r) && read_window(p, r) && p.number("pool_type", r.pool_type);
}

bool read(Payload& p, ZQLayerInfo_InstanceNormalization& r, const PayloadRules&) {
    return read_head_with_one_shape(p, r);
}

bool read(Payload& p, ZQLayerInfo_BatchNormalization& r, const PayloadRules&) {
    if (!read_head_with_one_shape(p, r)) return false;
    const uint64_t channels = r.in_shape->channels;
    return p.halves("bn_a", channels, r.bn_a_half, r.bn_a, r.bn_count) &&
           p.halves("bn_b", channels, r.bn_b_half, r.bn_b, r.bn_count) &&
           p.halves("bn_c", channels, r.bn_c_half, r.bn_c, r.bn_count) &&
           p.halves("bn_d", channels, r.bn_d_half, r.bn_d, r.bn_count);
}

bool read(Payload& p, ZQLayerInfo_Activation& r, const PayloadRules&) {
    return read_head_with_one_shape(p, r) && p.number("activation_type", r.activation_type) &&
           p.number("alpha", r.alpha) && p.number("beta", r.beta);
}

bool read(Payload& p, ZQLayerInfo_Region& r, const PayloadRules&) {
    return read_head_with_one_shape(p, r) && p.number("region_a", r.region_a) &&
           p.number("region_b", r.region_b) && p.number("region_c", r.region_c);
}

bool read(Payload& p, ZQLayerInfo_ElementWiseOperator& r, const PayloadRules& rules) {
    if (!p.id(r.id) || !p.bottoms(r)) return false;
    if (rules.legacy) {
        if (!p.shape("in_shape", *r.in_shape)) return false;
        *r.out_shape = *r.in_shape;
    } else {
        if (!p.shape("out_shape", *r.out_shape)) return false;
    }
    for (unsigned int i = 0; i < r.bottom_count; ++i)
        r.in_shapes[i] = *r.out_shape;
    return p.number("operator_type", r.operator_type) && p.number("activation", r.activation);
}

bool read(Payload& p, ZQLayerInfo_Concatenate& r, const PayloadRules&) {
    return p.id(r.id) && p.bottoms(r) && p.shapes("in_shapes", r.in_shapes, ZQ_MAX_BOTTOMS) &&
           p.shape("out_shape", *r.out_shape) && p.number("axis", r.axis);
}

bool read(Payload& p, ZQLayerInfo_Upsampling& r, const PayloadRules& rules) {
    // The shapes stand the other way round than elsewhere.
    return read_head(p, r) && p.shape("in_shape", *r.in_shape) &&
           p.shape("out_shape", *r.out_shape) && p.number("scale", r.scale) &&
           p.number("mode", r.mode) &&
           (rules.legacy || rules.version < 10007 || p.number("align", r.align));
}

bool read(Payload& p, ZQLayerInfo_ChannelShuffle& r, const PayloadRules&) {
    return read_head_with_one_shape(p, r) && p.numbers("reserved", r.reserved, 10) &&
           p.array("permutation", r.in_shape->channels, r.permutation, r.permutation_count);
}

bool read(Payload& p, ZQLayerInfo_TensorInput& r, const PayloadRules&) {
    return p.id(r.id) && p.number("input_index", r.input_index) &&
           p.tensor("out_tensor", r.out_tensor);
}

bool read(Payload& p, ZQLayerInfo_TensorReshape& r, const PayloadRules&) {
    return read_head(p, r) && read_tensors(p, r);
}

bool read(Payload& p, ZQLayerInfo_TensorTranspose& r, const PayloadRules&) {
    return read_head(p, r) && read_tensors(p, r) && p.numbers("axes", r.axes, 10);
}

bool read(Payload& p, ZQLayerInfo_TensorSqueeze& r, const PayloadRules&) {
    return read_head(p, r) && p.number("axis", r.axis) && read_tensors(p, r);
}

bool read(Payload& p, ZQLayerInfo_FullConnection& r, const PayloadRules&) {
    return read_head(p, r) && p.number("num_input", r.num_input) &&
           p.number("num_output", r.num_output) && p.number("has_bias", r.has_bias) &&
           read_tensors(p, r) && read_weights(p, r, uint64_t{r.num_input} * r.num_output) &&
           (r.has_bias == 0 || p.halves("bias", r.num_output, r.bias_half, r.bias, r.bias_count));
}

// One of the eight arrays of an LSTM: a list of patterns and a list of floats.
struct LstmArray {
    const char* name;
    uint64_t count;
    unsigned short*** halves;
    float*** floats;
    bool present;
};

bool read(Payload& p, ZQLayerInfo_LSTM& r, const PayloadRules& rules) {
    if (!read_head(p, r) || !p.number("input_size", r.input_size) ||
        !p.number("hidden_size", r.hidden_size) || !p.number("num_layers", r.num_layers) ||
        !p.number("has_bias", r.has_bias) || !p.number("bidirectional", r.bidirectional) ||
        !(rules.version < 10009 || p.number("lstm_flag", r.lstm_flag)) || !read_tensors(p, r)) {
        return false;
    }
    // No hidden state, no arrays: such lists would cost memory that no byte of the file stands for.
    if (r.hidden_size == 0 || r.num_layers == 0) return true;

    const bool bias = r.has_bias != 0;
    const bool reverse = r.bidirectional != 0;
    const uint64_t of_input = uint64_t{4} * r.hidden_size * r.input_size;
    const uint64_t of_hidden = uint64_t{4} * r.hidden_size * r.hidden_size;
    const uint64_t of_bias = uint64_t{4} * r.hidden_size;
    // In the order of the file, for each stacked layer.
    const LstmArray arrays[] = {
        {"w_ih", of_input, &r.w_ih_half, &r.w_ih, true},
        {"w_hh", of_hidden, &r.w_hh_half, &r.w_hh, true},
        {"b_ih", of_bias, &r.b_ih_half, &r.b_ih, bias},
        {"b_hh", of_bias, &r.b_hh_half, &r.b_hh, bias},
        {"w_ih_reverse", of_input, &r.w_ih_reverse_half, &r.w_ih_reverse, reverse},
        {"w_hh_reverse", of_hidden, &r.w_hh_reverse_half, &r.w_hh_reverse, reverse},
        {"b_ih_reverse", of_bias, &r.b_ih_reverse_half, &r.b_ih_reverse, reverse && bias},
        {"b_hh_reverse", of_bias, &r.b_hh_reverse_half, &r.b_hh_reverse, reverse && bias},
    };

    uint64_t of_layer = 0;
    for (const LstmArray& array : arrays)
        of_layer += array.present ? array.count : 0;
    if (!p.holds("weights of all layers", of_layer * r.num_layers, sizeof(float))) return false;

    r.list_count = r.num_layers;
    for (const LstmArray& array : arrays) {
        if (!array.present) continue;
        *array.halves =
            static_cast<unsigned short**>(std::calloc(r.list_count, sizeof(unsigned short*)));
        *array.floats = static_cast<float**>(std::calloc(r.list_count, sizeof(float*)));
        if (*array.halves == nullptr || *array.floats == nullptr) return p.no_memory(array.name);
    }
    for (size_t layer = 0; layer < r.list_count; ++layer) {
        for (const LstmArray& array : arrays) {
            size_t count = 0;
            if (array.present && !p.halves(array.name, array.count, (*array.halves)[layer],
                                           (*array.floats)[layer], count)) {
                return false;
            }
        }
    }
    r.w_ih_count = static_cast<size_t>(of_input);
    r.w_hh_count = static_cast<size_t>(of_hidden);
    r.bias_count = bias ? static_cast<size_t>(of_bias) : 0;
    return true;
}

bool read(Payload& p, ZQLayerInfo_TensorActivation& r, const PayloadRules&) {
    if (!read_head(p, r) || !p.tensor("in_tensors", r.in_tensors[0]) ||
        !p.number("activation_type", r.activation_type) || !p.number("alpha", r.alpha) ||
        !p.number("beta", r.beta)) {
        return false;
    }
    r.out_tensor = r.in_tensors[0];
    return true;
}

// Whether the constructor got its small arrays. An input has no bottoms.
bool has_room(const ZQLayerInfo_Input& r) {
    return r.in_shape && r.out_shape;
}
bool has_room(const ZQLayerInfo_TensorInput&) {
    return true;
}
bool has_room(const ZQFreezedLayerInfo& r) {
    return r.bottoms;
}
bool has_room(const ZQLayerInfo& r) {
    return r.bottoms && r.in_shape && r.out_shape;
}

template <typename Record>
std::unique_ptr<ZQLayerInfo> read_record(BoundedReader& in, const PayloadRules& rules,
                                         PayloadFault& fault) {
    Payload payload(in, fault);
    std::unique_ptr<Record> record(new (std::nothrow) Record);
    if (!record || !has_room(*record)) {
        payload.no_memory("record");
        return nullptr;
    }
    if (!read(payload, *record, rules)) return nullptr;
    return record;
}

}  // namespace

std::unique_ptr<ZQLayerInfo> read_payload(BoundedReader& in, unsigned short message_type,
                                          const PayloadRules& rules, PayloadFault& fault) {
    switch (message_type) {
        case ZQLayerType_Input:
            return read_record<ZQLayerInfo_Input>(in, rules, fault);
        case ZQLayerType_Conv2D:
            return read_record<ZQLayerInfo_Conv2D>(in, rules, fault);
        case ZQLayerType_Conv2DTranspose:
            return read_record<ZQLayerInfo_Conv2DTranspose>(in, rules, fault);
        case ZQLayerType_DepthWiseConv2D:
            return read_record<ZQLayerInfo_DepthWiseConv2D>(in, rules, fault);
        case ZQLayerType_PixelShuffle:
            return read_record<ZQLayerInfo_PixelShuffle>(in, rules, fault);
        case ZQLayerType_Pooling:
            return read_record<ZQLayerInfo_Pooling>(in, rules, fault);
        case ZQLayerType_InstanceNormalization:
            return read_record<ZQLayerInfo_InstanceNormalization>(in, rules, fault);
        case ZQLayerType_BatchNormalization:
            return read_record<ZQLayerInfo_BatchNormalization>(in, rules, fault);
        case ZQLayerType_Activation:
            return read_record<ZQLayerInfo_Activation>(in, rules, fault);
        case ZQLayerType_Region:
            return read_record<ZQLayerInfo_Region>(in, rules, fault);
        case ZQLayerType_ElementWiseOperator:
            return read_record<ZQLayerInfo_ElementWiseOperator>(in, rules, fault);
        case ZQLayerType_Concatenate:
            return read_record<ZQLayerInfo_Concatenate>(in, rules, fault);
        case ZQLayerType_Upsampling:
            return read_record<ZQLayerInfo_Upsampling>(in, rules, fault);
        case ZQLayerType_ChannelShuffle:
            return read_record<ZQLayerInfo_ChannelShuffle>(in, rules, fault);
        case ZQLayerType_DepthWiseConv2DTranspose:
            return read_record<ZQLayerInfo_DepthWiseConv2DTranspose>(in, rules, fault);
        case ZQLayerType_TensorInput:
            return read_record<ZQLayerInfo_TensorInput>(in, rules, fault);
        case ZQLayerType_TensorReshape:
            return read_record<ZQLayerInfo_TensorReshape>(in, rules, fault);
        case ZQLayerType_TensorTranspose:
            return read_record<ZQLayerInfo_TensorTranspose>(in, rules, fault);
        case ZQLayerType_TensorSqueeze:
            return read_record<ZQLayerInfo_TensorSqueeze>(in, rules, fault);
        case ZQLayerType_FullConnection:
            return read_record<ZQLayerInfo_FullConnection>(in, rules, fault);
        case ZQLayerType_LSTM:
            return read_record<ZQLayerInfo_LSTM>(in, rules, fault);
        case ZQLayerType_TensorActivation:
            return read_record<ZQLayerInfo_TensorActivation>(in, rules, fault);
        default:
            fault.text = "message type " + std::to_string(message_type) + " is not in use";
            return nullptr;
    }
}
