#include "modelkit/records.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace modelkit {

std::unique_ptr<ZQLayerInfo> make_record(unsigned int type) {
    switch (type) {
        case ZQLayerType_Input:
            return std::make_unique<ZQLayerInfo_Input>();
        case ZQLayerType_Conv2D:
            return std::make_unique<ZQLayerInfo_Conv2D>();
        case ZQLayerType_Conv2DTranspose:
            return std::make_unique<ZQLayerInfo_Conv2DTranspose>();
        case ZQLayerType_DepthWiseConv2D:
            return std::make_unique<ZQLayerInfo_DepthWiseConv2D>();
        case ZQLayerType_PixelShuffle:
            return std::make_unique<ZQLayerInfo_PixelShuffle>();
        case ZQLayerType_Pooling:
            return std::make_unique<ZQLayerInfo_Pooling>();
        case ZQLayerType_InstanceNormalization:
            return std::make_unique<ZQLayerInfo_InstanceNormalization>();
        case ZQLayerType_BatchNormalization:
            return std::make_unique<ZQLayerInfo_BatchNormalization>();
        case ZQLayerType_Activation:
            return std::make_unique<ZQLayerInfo_Activation>();
        case ZQLayerType_Region:
            return std::make_unique<ZQLayerInfo_Region>();
        case ZQLayerType_ElementWiseOperator:
            return std::make_unique<ZQLayerInfo_ElementWiseOperator>();
        case ZQLayerType_Concatenate:
            return std::make_unique<ZQLayerInfo_Concatenate>();
        case ZQLayerType_Upsampling:
            return std::make_unique<ZQLayerInfo_Upsampling>();
        case ZQLayerType_ChannelShuffle:
            return std::make_unique<ZQLayerInfo_ChannelShuffle>();
        case ZQLayerType_DepthWiseConv2DTranspose:
            return std::make_unique<ZQLayerInfo_DepthWiseConv2DTranspose>();
        case ZQLayerType_TensorInput:
            return std::make_unique<ZQLayerInfo_TensorInput>();
        case ZQLayerType_TensorReshape:
            return std::make_unique<ZQLayerInfo_TensorReshape>();
        case ZQLayerType_TensorTranspose:
            return std::make_unique<ZQLayerInfo_TensorTranspose>();
        case ZQLayerType_TensorSqueeze:
            return std::make_unique<ZQLayerInfo_TensorSqueeze>();
        case ZQLayerType_FullConnection:
            return std::make_unique<ZQLayerInfo_FullConnection>();
        case ZQLayerType_LSTM:
            return std::make_unique<ZQLayerInfo_LSTM>();
        case ZQLayerType_TensorActivation:
            return std::make_unique<ZQLayerInfo_TensorActivation>();
        default:
            return nullptr;
    }
}

bool assign_halves(unsigned short*& halves, float*& floats, size_t& count,
                   const std::vector<unsigned short>& patterns) {
    std::free(halves);
    std::free(floats);
    halves = nullptr;
    floats = nullptr;
    count = 0;
    if (patterns.empty()) return true;
    halves = static_cast<unsigned short*>(std::malloc(patterns.size() * sizeof(unsigned short)));
    floats = static_cast<float*>(std::malloc(patterns.size() * sizeof(float)));
    if (halves == nullptr || floats == nullptr) {
        std::free(halves);
        std::free(floats);
        halves = nullptr;
        floats = nullptr;
        return false;
    }
    std::memcpy(halves, patterns.data(), patterns.size() * sizeof(unsigned short));
    Tarno::halves_to_floats(halves, floats, patterns.size());
    count = patterns.size();
    return true;
}

bool assign_batchnorm(ZQLayerInfo_BatchNormalization& record, const std::vector<unsigned short>& a,
                      const std::vector<unsigned short>& b, const std::vector<unsigned short>& c,
                      const std::vector<unsigned short>& d) {
    if (b.size() != a.size() || c.size() != a.size() || d.size() != a.size()) return false;
    return assign_halves(record.bn_a_half, record.bn_a, record.bn_count, a) &&
           assign_halves(record.bn_b_half, record.bn_b, record.bn_count, b) &&
           assign_halves(record.bn_c_half, record.bn_c, record.bn_count, c) &&
           assign_halves(record.bn_d_half, record.bn_d, record.bn_count, d);
}

bool assign_permutation(ZQLayerInfo_ChannelShuffle& record,
                        const std::vector<unsigned short>& permutation) {
    std::free(record.permutation);
    record.permutation = nullptr;
    record.permutation_count = 0;
    if (permutation.empty()) return true;
    const size_t size = permutation.size() * sizeof(unsigned short);
    record.permutation = static_cast<unsigned short*>(std::malloc(size));
    if (record.permutation == nullptr) return false;
    std::memcpy(record.permutation, permutation.data(), size);
    record.permutation_count = permutation.size();
    return true;
}

namespace {

struct LstmList {
    unsigned short**& halves;
    float**& floats;
    size_t count;
    bool present;
};

// The eight lists in the order of the file, with the lengths and the presence that the record's
// sizes and flags ask for.
std::vector<LstmList> lists_of(ZQLayerInfo_LSTM& r) {
    const bool present = r.hidden_size != 0 && r.num_layers != 0;
    const bool bias = present && r.has_bias != 0;
    const bool reverse = present && r.bidirectional != 0;
    const size_t gates = size_t{4} * r.hidden_size;
    const size_t of_input = gates * r.input_size;
    const size_t of_hidden = gates * r.hidden_size;
    return {{r.w_ih_half, r.w_ih, of_input, present},
            {r.w_hh_half, r.w_hh, of_hidden, present},
            {r.b_ih_half, r.b_ih, gates, bias},
            {r.b_hh_half, r.b_hh, gates, bias},
            {r.w_ih_reverse_half, r.w_ih_reverse, of_input, reverse},
            {r.w_hh_reverse_half, r.w_hh_reverse, of_hidden, reverse},
            {r.b_ih_reverse_half, r.b_ih_reverse, gates, reverse && bias},
            {r.b_hh_reverse_half, r.b_hh_reverse, gates, reverse && bias}};
}

template <typename T>
void free_list(T**& list, size_t count) {
    if (list != nullptr) {
        for (size_t i = 0; i < count; ++i)
            std::free(list[i]);
    }
    std::free(list);
    list = nullptr;
}

void clear_lstm(ZQLayerInfo_LSTM& record) {
    for (const LstmList& list : lists_of(record)) {
        free_list(list.halves, record.list_count);
        free_list(list.floats, record.list_count);
    }
    record.list_count = 0;
    record.w_ih_count = 0;
    record.w_hh_count = 0;
    record.bias_count = 0;
}

}  // namespace

size_t lstm_halves_count(const ZQLayerInfo_LSTM& record) {
    const size_t gates = size_t{4} * record.hidden_size;
    const size_t weights = gates * record.input_size + gates * record.hidden_size;
    const size_t biases = record.has_bias != 0 ? 2 * gates : 0;
    const size_t directions = record.bidirectional != 0 ? 2 : 1;
    return (weights + biases) * directions * record.num_layers;
}

bool assign_lstm(ZQLayerInfo_LSTM& record, const std::vector<unsigned short>& patterns) {
    if (patterns.size() != lstm_halves_count(record)) return false;
    clear_lstm(record);
    if (record.hidden_size == 0 || record.num_layers == 0) return true;

    const std::vector<LstmList> lists = lists_of(record);
    record.list_count = record.num_layers;
    for (const LstmList& list : lists) {
        if (!list.present) continue;
        list.halves =
            static_cast<unsigned short**>(std::calloc(record.list_count, sizeof(unsigned short*)));
        list.floats = static_cast<float**>(std::calloc(record.list_count, sizeof(float*)));
        if (list.halves == nullptr || list.floats == nullptr) {
            clear_lstm(record);
            return false;
        }
    }
    auto next = patterns.begin();
    for (size_t layer = 0; layer < record.list_count; ++layer) {
        for (const LstmList& list : lists) {
            if (!list.present) continue;
            const auto end = next + static_cast<std::ptrdiff_t>(list.count);
            size_t count = 0;
            if (!assign_halves(list.halves[layer], list.floats[layer], count, {next, end})) {
                clear_lstm(record);
                return false;
            }
            next = end;
        }
    }
    record.w_ih_count = lists[0].count;
    record.w_hh_count = lists[1].count;
    record.bias_count = record.has_bias != 0 ? lists[2].count : 0;
    return true;
}

namespace {

class Fields {
public:
    void number(const std::string& name, size_t value) {
        list.push_back({name, {static_cast<unsigned int>(value)}});
    }

    template <typename T>
    void numbers(const std::string& name, const T* values, size_t count) {
        RecordField field{name, {}};
        if (values != nullptr) field.values.assign(values, values + count);
        list.push_back(std::move(field));
    }

    void floats(const std::string& name, const float* values, size_t count) {
        RecordField field{name, {}};
        if (values != nullptr && count != 0) {
            field.values.resize(count);
            std::memcpy(field.values.data(), values, count * sizeof(float));
        }
        list.push_back(std::move(field));
    }

    void halves(const std::string& name, const unsigned short* halves, const float* floats,
                size_t count) {
        numbers(name + "_half", halves, count);
        this->floats(name, floats, count);
    }

    void lists(const std::string& name, unsigned short* const* halves_list,
               const float* const* floats_list, size_t list_count, size_t count) {
        number(name + "_is_there", halves_list != nullptr && floats_list != nullptr);
        if (halves_list == nullptr || floats_list == nullptr) return;
        for (size_t i = 0; i < list_count; ++i) {
            halves(name + "[" + std::to_string(i) + "]", halves_list[i], floats_list[i], count);
        }
    }

    void shapes(const char* name, const shape3* shapes, size_t count) {
        RecordField field{name, {}};
        for (size_t i = 0; shapes != nullptr && i < count; ++i) {
            field.values.push_back(shapes[i].scale_x);
            field.values.push_back(shapes[i].scale_y);
            field.values.push_back(shapes[i].channels);
        }
        list.push_back(std::move(field));
    }

    void tensors(const char* name, const tensor28* tensors, size_t count) {
        RecordField field{name, {}};
        for (size_t i = 0; i < count; ++i) {
            field.values.push_back(tensors[i].kind);
            field.values.push_back(tensors[i].rank);
            for (const unsigned short dim : tensors[i].dims)
                field.values.push_back(dim);
        }
        list.push_back(std::move(field));
    }

    template <typename Record>
    void window(const Record& r) {
        number("kernel_w", r.kernel_w);
        number("kernel_h", r.kernel_h);
        number("pad_w", r.pad_w);
        number("pad_h", r.pad_h);
        number("stride_w", r.stride_w);
        number("stride_h", r.stride_h);
    }

    template <typename Record>
    void weights_and_bias(const Record& r) {
        number("has_bias", r.has_bias);
        number("weights_count", r.weights_count);
        number("bias_count", r.bias_count);
        halves("weights", r.weights_half, r.weights, r.weights_count);
        halves("bias", r.bias_half, r.bias, r.bias_count);
    }

    std::vector<RecordField> list;
};

template <typename Record>
void add_convolution(Fields& fields, const Record& r) {
    fields.window(r);
    fields.number("activation", r.activation);
    fields.weights_and_bias(r);
}

template <typename Record>
void add_depthwise(Fields& fields, const Record& r) {
    fields.number("depth_multiplier", r.depth_multiplier);
    fields.number("dilation_w", r.dilation_w);
    fields.number("dilation_h", r.dilation_h);
    add_convolution(fields, r);
}

template <typename Record>
void add_activation(Fields& fields, const Record& r) {
    fields.number("activation_type", r.activation_type);
    fields.number("alpha", r.alpha);
    fields.number("beta", r.beta);
}

void add_lstm(Fields& fields, const ZQLayerInfo_LSTM& r) {
    fields.number("input_size", r.input_size);
    fields.number("hidden_size", r.hidden_size);
    fields.number("num_layers", r.num_layers);
    fields.number("has_bias", r.has_bias);
    fields.number("bidirectional", r.bidirectional);
    fields.number("lstm_flag", r.lstm_flag);
    fields.number("list_count", r.list_count);
    fields.number("w_ih_count", r.w_ih_count);
    fields.number("w_hh_count", r.w_hh_count);
    fields.number("bias_count", r.bias_count);
    const size_t n = r.list_count;
    fields.lists("w_ih", r.w_ih_half, r.w_ih, n, r.w_ih_count);
    fields.lists("w_hh", r.w_hh_half, r.w_hh, n, r.w_hh_count);
    fields.lists("b_ih", r.b_ih_half, r.b_ih, n, r.bias_count);
    fields.lists("b_hh", r.b_hh_half, r.b_hh, n, r.bias_count);
    fields.lists("w_ih_reverse", r.w_ih_reverse_half, r.w_ih_reverse, n, r.w_ih_count);
    fields.lists("w_hh_reverse", r.w_hh_reverse_half, r.w_hh_reverse, n, r.w_hh_count);
    fields.lists("b_ih_reverse", r.b_ih_reverse_half, r.b_ih_reverse, n, r.bias_count);
    fields.lists("b_hh_reverse", r.b_hh_reverse_half, r.b_hh_reverse, n, r.bias_count);
}

size_t shape_room(const ZQLayerInfo& record) {
    return record.type == ZQLayerType_ElementWiseOperator || record.type == ZQLayerType_Concatenate
               ? ZQ_MAX_BOTTOMS
               : 1;
}

size_t bottom_room(const ZQLayerInfo& record) {
    return shape_room(record) == ZQ_MAX_BOTTOMS ? ZQ_MAX_BOTTOMS : record.bottom_count;
}

}  // namespace

std::vector<RecordField> fields_of(const ZQLayerInfo& record) {
    Fields fields;
    fields.number("type", record.type);
    fields.number("id", record.id);
    fields.number("bottom_count", record.bottom_count);
    fields.number("top_count", record.top_count);
    fields.numbers("bottoms", record.bottoms, bottom_room(record));
    fields.shapes("in_shape", record.in_shape, shape_room(record));
    fields.shapes("out_shape", record.out_shape, 1);
    if (const auto* frozen = dynamic_cast<const ZQFreezedLayerInfo*>(&record)) {
        fields.tensors("in_tensors", frozen->in_tensors, 10);
        fields.tensors("out_tensor", &frozen->out_tensor, 1);
    }

    if (const auto* r = dynamic_cast<const ZQLayerInfo_Input*>(&record)) {
        fields.number("input_index", r->input_index);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_Conv2D*>(&record)) {
        fields.number("dilation_w", r->dilation_w);
        fields.number("dilation_h", r->dilation_h);
        fields.number("groups", r->groups);
        fields.numbers("reserved", r->reserved, 10);
        add_convolution(fields, *r);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_Conv2DTranspose*>(&record)) {
        fields.number("groups", r->groups);
        add_convolution(fields, *r);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_DepthWiseConv2D*>(&record)) {
        add_depthwise(fields, *r);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_DepthWiseConv2DTranspose*>(&record)) {
        add_depthwise(fields, *r);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_PixelShuffle*>(&record)) {
        fields.number("upscale_factor", r->upscale_factor);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_Pooling*>(&record)) {
        fields.window(*r);
        fields.number("pool_type", r->pool_type);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_BatchNormalization*>(&record)) {
        fields.number("bn_count", r->bn_count);
        fields.halves("bn_a", r->bn_a_half, r->bn_a, r->bn_count);
        fields.halves("bn_b", r->bn_b_half, r->bn_b, r->bn_count);
        fields.halves("bn_c", r->bn_c_half, r->bn_c, r->bn_count);
        fields.halves("bn_d", r->bn_d_half, r->bn_d, r->bn_count);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_Activation*>(&record)) {
        add_activation(fields, *r);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_Region*>(&record)) {
        fields.number("region_a", r->region_a);
        fields.number("region_b", r->region_b);
        fields.number("region_c", r->region_c);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_ElementWiseOperator*>(&record)) {
        fields.number("operator_type", r->operator_type);
        fields.number("activation", r->activation);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_Concatenate*>(&record)) {
        fields.number("axis", r->axis);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_Upsampling*>(&record)) {
        fields.number("scale", r->scale);
        fields.number("mode", r->mode);
        fields.number("align", r->align);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_ChannelShuffle*>(&record)) {
        fields.numbers("reserved", r->reserved, 10);
        fields.number("permutation_count", r->permutation_count);
        fields.numbers("permutation", r->permutation, r->permutation_count);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_TensorInput*>(&record)) {
        fields.number("input_index", r->input_index);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_TensorTranspose*>(&record)) {
        fields.numbers("axes", r->axes, 10);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_TensorSqueeze*>(&record)) {
        fields.number("axis", r->axis);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_FullConnection*>(&record)) {
        fields.number("num_input", r->num_input);
        fields.number("num_output", r->num_output);
        fields.weights_and_bias(*r);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_LSTM*>(&record)) {
        add_lstm(fields, *r);
    } else if (const auto* r = dynamic_cast<const ZQLayerInfo_TensorActivation*>(&record)) {
        add_activation(fields, *r);
    }
    return std::move(fields.list);
}

std::string difference(const ZQLayerInfo& a, const ZQLayerInfo& b) {
    const std::vector<RecordField> of_a = fields_of(a);
    const std::vector<RecordField> of_b = fields_of(b);
    for (size_t i = 0; i < of_a.size() && i < of_b.size(); ++i) {
        if (of_a[i].name != of_b[i].name || of_a[i].values != of_b[i].values) return of_a[i].name;
    }
    return of_a.size() == of_b.size() ? std::string() : "number of fields";
}

}  // namespace modelkit
