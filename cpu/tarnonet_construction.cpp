// From the records of a model file to layers, blobs and operators.

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "cpu/layer/concat.h"
#include "cpu/layer/region.h"
#include "cpu/layer/tensorreshape.h"
#include "cpu/operator_creators.h"
#include "cpu/tarnonet.h"
#include "crossplatform/src/common/src/crossplatform_zqnetloader.h"
#include "crossplatform/src/common/src/half_float.h"
#include "platform/assertion.h"

namespace TarnoCPU {
namespace {

// The detection grid of a region layer; the model file does not carry it.
constexpr int region_grid = 11;

/// The activation that a record fuses to its layer, 0 for none.
int fused_activation(const ZQLayerInfo* zqlayer_info) {
    switch (zqlayer_info->type) {
        case ZQLayerType_Conv2D:
            return static_cast<const ZQLayerInfo_Conv2D*>(zqlayer_info)->activation;
        case ZQLayerType_Conv2DTranspose:
            return static_cast<const ZQLayerInfo_Conv2DTranspose*>(zqlayer_info)->activation;
        case ZQLayerType_DepthWiseConv2D:
            return static_cast<const ZQLayerInfo_DepthWiseConv2D*>(zqlayer_info)->activation;
        case ZQLayerType_DepthWiseConv2DTranspose:
            return static_cast<const ZQLayerInfo_DepthWiseConv2DTranspose*>(zqlayer_info)
                ->activation;
        case ZQLayerType_ElementWiseOperator:
            return static_cast<const ZQLayerInfo_ElementWiseOperator*>(zqlayer_info)->activation;
        default:
            return 0;
    }
}

/// Floats that the net takes without a file that brought them: zeros behind arrays that are too
/// short, and the arrays of records that are listed twice. Sound models have next to none; a
/// damaged one gets no further than this.
class SpareFloats {
public:
    bool take(double count) {
        if (count > left) return false;
        left -= count;
        return true;
    }

private:
    double left = 1 << 24;
};

/// The arrays of a net's records on their way to its operators.
class Arrays {
public:
    /// An array of `wanted` floats that starts with `source` and ends with zeros. `available` is
    /// what the record holds. Empty when there are no floats to spare for the zeros.
    std::vector<float> padded(const float* source, int64_t available, int64_t wanted) {
        if (wanted <= 0 || wanted > INT_MAX) return {};
        if (wanted > available && !spare.take(static_cast<double>(wanted - available))) return {};
        std::vector<float> array(static_cast<size_t>(wanted), 0.0f);
        const int64_t copied = std::min(available, wanted);
        if (source != nullptr && copied > 0) {
            std::memcpy(array.data(), source, static_cast<size_t>(copied) * sizeof(float));
        }
        return array;
    }

    /// [outer][rows][inner] to [outer][inner][rows]: kernel taps are the rows, and the file has its
    /// channels inside the taps where the operators have the taps inside the channels. Elements
    /// behind the end of the record's array are 0.
    std::vector<float> taps_innermost(const float* source, int64_t available, int64_t outer,
                                      int64_t rows, int64_t inner) {
        // In double: four 16-bit numbers may multiply to more than 63 bits.
        const double total =
            static_cast<double>(outer) * static_cast<double>(rows) * static_cast<double>(inner);
        if (total <= 0.0 || total > INT_MAX) return {};
        std::vector<float> array = padded(nullptr, available, outer * rows * inner);
        if (array.empty() || source == nullptr) return array;
        int64_t from = 0;
        for (int64_t o = 0; o < outer; ++o) {
            for (int64_t r = 0; r < rows; ++r) {
                const int64_t readable = std::min(inner, std::max<int64_t>(0, available - from));
                float* to = array.data() + o * rows * inner + r;
                for (int64_t i = 0; i < readable; ++i) to[i * rows] = source[from + i];
                from += inner;
            }
        }
        return array;
    }

    /// Cut or filled up with zeros to `wanted` floats.
    std::vector<float> resized(const std::vector<float>& array, int64_t wanted) {
        return padded(array.data(), static_cast<int64_t>(array.size()), wanted);
    }

    SpareFloats spare;
};

/// Weights that know how long they are: an operator that a table put on a layer of another kind may
/// ask for more than there is. The rest reads as 0.
class SizedWeights : public ModelBin {
public:
    struct Array {
        const float* data = nullptr;
        int64_t count = 0;
    };

    /// The array behind each `type`, the same for every index.
    explicit SizedWeights(std::vector<Array> by_type) : by_type(std::move(by_type)) {}
    /// The arrays behind type 0 and type 1 by index.
    SizedWeights(std::vector<Array> weights, std::vector<Array> bias)
        : by_index{std::move(weights), std::move(bias)} {}

    Mat load(int count, int type, int index) const override {
        const Array source = find(type, index);
        // As long as the operators of the layer's own kind ask, nothing is missing.
        constexpr int64_t most_missing = int64_t{1} << 22;
        Mat array;
        array.shape = TensorShape(TensorShape::FLAT, 1, 1, 0, 4);
        if (count <= 0 || count - source.count > most_missing) return array;
        array.create(TensorShape(TensorShape::FLAT, 1, 1, count, 4), nullptr);
        if (array.empty()) return array;
        const int64_t present = source.data != nullptr ? std::min<int64_t>(count, source.count) : 0;
        if (present > 0) {
            std::memcpy(array.data, source.data, static_cast<size_t>(present) * sizeof(float));
        }
        std::memset(array.ptr<float>() + present, 0,
                    static_cast<size_t>(count - present) * sizeof(float));
        return array;
    }

private:
    Array find(int type, int index) const {
        if (by_type.empty()) {
            const bool known = (type == 0 || type == 1) && index >= 0 &&
                               static_cast<size_t>(index) < by_index[type].size();
            return known ? by_index[type][static_cast<size_t>(index)] : Array();
        }
        const bool known = type >= 0 && static_cast<size_t>(type) < by_type.size();
        return known ? by_type[static_cast<size_t>(type)] : Array();
    }

    std::vector<Array> by_type;
    std::vector<Array> by_index[2];
};

/// Weights of a layer that has none.
SizedWeights no_weights() {
    return SizedWeights({SizedWeights::Array(), SizedWeights::Array()});
}

SizedWeights weights_and_bias(const std::vector<float>& weights, const float* bias,
                              size_t bias_count) {
    return SizedWeights({{weights.data(), static_cast<int64_t>(weights.size())},
                         {bias, static_cast<int64_t>(bias_count)}});
}

/// Floats that an operator keeps of a record.
double float_count(const ZQLayerInfo* record) {
    switch (record->type) {
        case ZQLayerType_Conv2D:
            return static_cast<double>(
                static_cast<const ZQLayerInfo_Conv2D*>(record)->weights_count);
        case ZQLayerType_Conv2DTranspose:
            return static_cast<double>(
                static_cast<const ZQLayerInfo_Conv2DTranspose*>(record)->weights_count);
        case ZQLayerType_DepthWiseConv2D:
            return static_cast<double>(
                static_cast<const ZQLayerInfo_DepthWiseConv2D*>(record)->weights_count);
        case ZQLayerType_DepthWiseConv2DTranspose:
            return static_cast<double>(
                static_cast<const ZQLayerInfo_DepthWiseConv2DTranspose*>(record)->weights_count);
        case ZQLayerType_FullConnection:
            return static_cast<double>(
                static_cast<const ZQLayerInfo_FullConnection*>(record)->weights_count);
        case ZQLayerType_BatchNormalization:
            return 6.0 * static_cast<double>(
                             static_cast<const ZQLayerInfo_BatchNormalization*>(record)->bn_count);
        case ZQLayerType_LSTM: {
            const auto* lstm = static_cast<const ZQLayerInfo_LSTM*>(record);
            return 2.0 * lstm->num_layers *
                   static_cast<double>(lstm->w_ih_count + lstm->w_hh_count + 2 * lstm->bias_count);
        }
        default:
            return 0.0;
    }
}

int count_of(const std::vector<float>& array) {
    return static_cast<int>(array.size());
}

/// Builds one net from one loader. Lives for the length of the construction.
class Construction {
public:
    Construction(TarnoNet& net, const ZQNetLoader& loader, const LayerInferenceConfig* configs)
        : net(net),
          configs(configs),
          sequential_layers(loader.getSequentialLayers()),
          layers_info(loader.getLayersInfo()) {}

    void run();

private:
    void add_layer_of(const ZQLayerInfo* zqlayer_info);
    void add_input(const ZQLayerInfo* record, int input_index);
    void add_convolution(const ZQLayerInfo_Conv2D* record);
    void add_deconvolution(const ZQLayerInfo_Conv2DTranspose* record);
    void add_depthwise(const ZQLayerInfo_DepthWiseConv2D* record);
    void add_depthwise_deconvolution(const ZQLayerInfo_DepthWiseConv2DTranspose* record);
    void add_pooling(const ZQLayerInfo_Pooling* record);
    void add_batch_normalization(const ZQLayerInfo_BatchNormalization* record);
    void add_activation(const ZQLayerInfo* record, int kind, float alpha, float beta);
    void add_region(const ZQLayerInfo_Region* record);
    void add_eltwise(const ZQLayerInfo_ElementWiseOperator* record);
    void add_concat(const ZQLayerInfo_Concatenate* record);
    void add_upsampling(const ZQLayerInfo_Upsampling* record);
    void add_tensor_reshape(const ZQLayerInfo_TensorReshape* record);
    void add_full_connection(const ZQLayerInfo_FullConnection* record);
    void add_lstm(const ZQLayerInfo_LSTM* record);
    void add_pixel_shuffle(const ZQLayerInfo_PixelShuffle* record);

    LayerInferenceConfig next_config(OperatorCreator default_creator);
    void expect_no_operator(int assertion_line);

    /// A new layer with id and display name. Null only when there is no memory.
    template <typename LayerClass = Layer>
    LayerClass* make_layer(const char* key, const ZQLayerInfo* record, const std::string& type);
    Layer* make_activation(int id, int kind, const ParamDict& linear);

    /// Puts `layer` behind the others, from the record's bottoms to the record's own blob.
    void wire(Layer* layer, const ZQLayerInfo* record);
    /// The same with the record's fused activation, when it has one, behind it.
    void wire_fused(Layer* layer, const ZQLayerInfo* record);
    void connect_bottoms(Layer* layer, const ZQLayerInfo* record);
    void add_consumer(const std::vector<int>& bottoms, int index);
    int append(Layer* layer);

    TarnoNet& net;
    const LayerInferenceConfig* configs;
    size_t ic_index = 0;
    Arrays arrays;
    std::set<unsigned short> built;
    std::vector<unsigned short> sequential_layers;
    std::map<unsigned short, ZQLayerInfo*> layers_info;
};

std::string text_of(unsigned int number) {
    return std::to_string(number);
}

/// "3x3s2x2" of kernel and stride.
std::string window_text(unsigned int kernel_first, unsigned int kernel_second,
                        unsigned int stride_first, unsigned int stride_second) {
    return text_of(kernel_first) + "x" + text_of(kernel_second) + "s" + text_of(stride_first) +
           "x" + text_of(stride_second);
}

/// Ids 0 to 8 of the convolutions.
void set_window(ParamDict& pd, int num_output, int kernel_w, int kernel_h, int dilation_w,
                int dilation_h, int stride_w, int stride_h, int pad_w, int pad_h) {
    pd.set(0, num_output);
    pd.set(1, kernel_w);
    pd.set(2, kernel_h);
    pd.set(3, dilation_w);
    pd.set(4, dilation_h);
    pd.set(5, stride_w);
    pd.set(6, stride_h);
    pd.set(7, pad_w);
    pd.set(8, pad_h);
}

void Construction::run() {
    int highest = -1;
    for (const unsigned short id : sequential_layers) highest = std::max<int>(highest, id);
    net.blobs.resize(static_cast<size_t>(highest + 1));
    for (const unsigned short id : sequential_layers) {
        const auto found = layers_info.find(id);
        const ZQLayerInfo* zqlayer_info = found != layers_info.end() ? found->second : NULL;
        TN_ASSERT_AT(zqlayer_info != NULL, "tarnonet", 410);
        if (zqlayer_info == NULL) continue;
        if (!built.insert(id).second && !arrays.spare.take(float_count(zqlayer_info))) {
            Tarno::_LogError("Tarno", "layer %d is listed again and again: not built", id);
            continue;
        }
        add_layer_of(zqlayer_info);
    }
}

void Construction::add_layer_of(const ZQLayerInfo* info) {
    switch (info->type) {
        case ZQLayerType_Input:
            add_input(info, static_cast<const ZQLayerInfo_Input*>(info)->input_index);
            break;
        case ZQLayerType_TensorInput:
            add_input(info, static_cast<const ZQLayerInfo_TensorInput*>(info)->input_index);
            break;
        case ZQLayerType_Conv2D:
            add_convolution(static_cast<const ZQLayerInfo_Conv2D*>(info));
            break;
        case ZQLayerType_Conv2DTranspose:
            add_deconvolution(static_cast<const ZQLayerInfo_Conv2DTranspose*>(info));
            break;
        case ZQLayerType_DepthWiseConv2D:
            add_depthwise(static_cast<const ZQLayerInfo_DepthWiseConv2D*>(info));
            break;
        case ZQLayerType_DepthWiseConv2DTranspose:
            add_depthwise_deconvolution(
                static_cast<const ZQLayerInfo_DepthWiseConv2DTranspose*>(info));
            break;
        case ZQLayerType_PixelShuffle:
            add_pixel_shuffle(static_cast<const ZQLayerInfo_PixelShuffle*>(info));
            break;
        case ZQLayerType_Pooling:
            add_pooling(static_cast<const ZQLayerInfo_Pooling*>(info));
            break;
        case ZQLayerType_BatchNormalization:
            add_batch_normalization(static_cast<const ZQLayerInfo_BatchNormalization*>(info));
            break;
        case ZQLayerType_Activation: {
            const auto* zqlayer = static_cast<const ZQLayerInfo_Activation*>(info);
            TN_ASSERT_AT(zqlayer->activation_type != ActivationType_None, "tarnonet", 1150);
            add_activation(info, zqlayer->activation_type, Tarno::half_to_float(zqlayer->alpha),
                           Tarno::half_to_float(zqlayer->beta));
            break;
        }
        case ZQLayerType_TensorActivation: {
            const auto* zqlayer = static_cast<const ZQLayerInfo_TensorActivation*>(info);
            if (zqlayer->activation_type == ActivationType_None) {
                // The text has the member under an older name.
                Tarno::ReportAssertion("zqlayer->_activation_type != ActivationType_None",
                                       "tarnonet", 1123);
            }
            // Plain numbers in this record, not halves.
            add_activation(info, zqlayer->activation_type, static_cast<float>(zqlayer->alpha),
                           static_cast<float>(zqlayer->beta));
            break;
        }
        case ZQLayerType_Region:
            add_region(static_cast<const ZQLayerInfo_Region*>(info));
            break;
        case ZQLayerType_ElementWiseOperator:
            add_eltwise(static_cast<const ZQLayerInfo_ElementWiseOperator*>(info));
            break;
        case ZQLayerType_Concatenate:
            add_concat(static_cast<const ZQLayerInfo_Concatenate*>(info));
            break;
        case ZQLayerType_Upsampling:
            add_upsampling(static_cast<const ZQLayerInfo_Upsampling*>(info));
            break;
        case ZQLayerType_TensorReshape:
            add_tensor_reshape(static_cast<const ZQLayerInfo_TensorReshape*>(info));
            break;
        case ZQLayerType_FullConnection:
            add_full_connection(static_cast<const ZQLayerInfo_FullConnection*>(info));
            break;
        case ZQLayerType_LSTM:
            add_lstm(static_cast<const ZQLayerInfo_LSTM*>(info));
            break;
        default:
            TN_ASSERT_AT(false && "Unsupported tarno layer type", "tarnonet", 1396);
            break;
    }
}

LayerInferenceConfig Construction::next_config(OperatorCreator default_creator) {
    if (configs != nullptr) return configs[ic_index++];
    return {default_creator, 0, 0};
}

void Construction::expect_no_operator(int assertion_line) {
    if (configs == nullptr) return;
    const bool holds = configs[ic_index].op_creator == nullptr;
    if (!holds) {
        Tarno::ReportAssertion("ics[ic_index].op_creator == nullptr", "tarnonet", assertion_line);
    }
    ++ic_index;
}

template <typename LayerClass>
LayerClass* Construction::make_layer(const char* key, const ZQLayerInfo* record,
                                     const std::string& type) {
    // The key fixes the class.
    LayerClass* layer = static_cast<LayerClass*>(create_layer(key));
    if (layer == nullptr) return nullptr;
    layer->id = record->id;
    layer->type = type;
    return layer;
}

int Construction::append(Layer* layer) {
    net.layers.push_back(layer);
    return static_cast<int>(net.layers.size()) - 1;
}

void Construction::connect_bottoms(Layer* layer, const ZQLayerInfo* record) {
    for (int i = 0; i < record->bottom_count; ++i) layer->bottoms.push_back(record->bottoms[i]);
}

void Construction::add_consumer(const std::vector<int>& bottoms, int index) {
    for (const int bottom : bottoms) {
        // A bottom that no record has: the layer finds it empty and fails its check.
        if (static_cast<size_t>(bottom) < net.blobs.size()) {
            net.blobs[static_cast<size_t>(bottom)].consumers.push_back(index);
        }
    }
}

void Construction::wire(Layer* layer, const ZQLayerInfo* record) {
    if (layer == nullptr) return;
    connect_bottoms(layer, record);
    layer->tops.push_back(record->id);
    const int index = append(layer);
    add_consumer(layer->bottoms, index);
    net.blobs[record->id].producer = index;
}

void Construction::wire_fused(Layer* layer, const ZQLayerInfo* record) {
    const int kind = fused_activation(record);
    if (kind == 0 || layer == nullptr) {
        wire(layer, record);
        return;
    }
    Layer* activation = make_activation(record->id, kind, ParamDict());
    if (activation == nullptr) {
        wire(layer, record);
        return;
    }
    activation->support_inplace = true;

    connect_bottoms(layer, record);
    const int between = static_cast<int>(net.blobs.size());
    layer->tops.push_back(between);
    activation->bottoms.push_back(between);
    activation->tops.push_back(record->id);

    const int index = append(layer);
    const int activation_index = append(activation);
    add_consumer(layer->bottoms, index);
    Blob blob;
    blob.producer = index;
    blob.consumers.push_back(activation_index);
    net.blobs.push_back(blob);
    net.blobs[record->id].producer = activation_index;
}

Layer* Construction::make_activation(int id, int kind, const ParamDict& linear) {
    struct Row {
        int kind;
        const char* text;
        OperatorCreator creator;
    };
    static const Row rows[] = {
        {1, "Linear", &Linear_Float_Fallback_operator_creator},
        {2, "ReLU", &ReLU_Float_SSE_operator_creator},
        {6, "LeakyReLU", &ReLU_Float_Fallback_operator_creator},
        {3, "Tanh", &Tanh_Float_Fallback_operator_creator},
        {4, "Sigmoid", &Sigmoid_Float_Fallback_operator_creator},
        {8, "ReLU6", &ReLU6_Float_Fallback_operator_creator},
        {7, "SoftMax", &Softmax_Float_Fallback_operator_creator},
    };
    const Row* known = nullptr;
    for (const Row& row : rows) {
        if (row.kind == kind) known = &row;
    }
    Layer* layer = create_layer("Activation");
    const LayerInferenceConfig config = next_config(known != nullptr ? known->creator : nullptr);
    if (layer == nullptr) return nullptr;
    layer->id = id;
    if (known == nullptr) {
        // The layer stays without an operator, so a run stops here instead of going on wrong.
        TN_ASSERT_AT(false && "Unsupported tarno activation type", "tarnonet", 190);
        return layer;
    }
    layer->type = known->text;
    ParamDict pd;
    if (kind == 1) pd = linear;
    if (kind == 2) pd.set(0, 0.0f);
    if (kind == 6) pd.set(0, 0.1f);
    layer->load(pd, no_weights(), config);
    return layer;
}

void Construction::add_input(const ZQLayerInfo* record, int input_index) {
    Layer* layer = make_layer("Input", record, "Input");
    const LayerInferenceConfig config = next_config(&Input_Fallback_operator_creator);
    if (layer == nullptr) return;
    layer->load(ParamDict(), no_weights(), config);
    // Bottom and top are the one blob that the caller fills; it has no consumer entry for this.
    layer->bottoms.push_back(record->id);
    layer->tops.push_back(record->id);
    net.input_blobs[input_index] = record->id;
    net.blobs[record->id].producer = append(layer);
}

OperatorCreator default_convolution(const ZQLayerInfo_Conv2D* record) {
    const bool dense_taps = record->dilation_w == 1 && record->dilation_h == 1;
    const bool stride_1 = record->stride_w == 1 && record->stride_h == 1;
    const bool stride_2 = record->stride_w == 2 && record->stride_h == 2;
    if (dense_taps && record->kernel_w == 3 && record->kernel_h == 3) {
        if (stride_1) return &Convolution_3x3s1_Float_SGEMM_operator_creator;
        if (stride_2) return &Convolution_3x3s2_Float_SGEMM_operator_creator;
    }
    if (dense_taps && record->kernel_w == 1 && record->kernel_h == 1) {
        if (stride_1) return &Convolution_1x1s1_Float_SGEMM_operator_creator;
        if (stride_2) return &Convolution_1x1s2_Float_SGEMM_operator_creator;
    }
    return &Convolution_Float_Fallback_operator_creator;
}

void Construction::add_convolution(const ZQLayerInfo_Conv2D* record) {
    const int64_t in = record->in_shape->channels;
    const int64_t out = record->out_shape->channels;
    const int64_t taps = static_cast<int64_t>(record->kernel_w) * record->kernel_h;
    const int groups = static_cast<int>(record->effective_groups());
    const std::vector<float> weights =
        groups == 1 ? arrays.taps_innermost(record->weights, record->weights_count, out, taps, in)
                    : arrays.padded(record->weights, record->weights_count,
                                    (in / groups) * (out / groups) * groups * taps);
    ParamDict pd;
    set_window(pd, record->out_shape->channels, record->kernel_w, record->kernel_h,
               record->dilation_w, record->dilation_h, record->stride_w, record->stride_h,
               record->pad_w, record->pad_h);
    pd.set(9, record->has_bias);
    pd.set(10, count_of(weights));
    pd.set(11, groups);
    pd.set(12, record->in_shape->channels);
    Layer* layer = make_layer("Convolution", record,
                              "Convolution" + window_text(record->kernel_w, record->kernel_h,
                                                          record->stride_w, record->stride_h));
    const LayerInferenceConfig config = next_config(default_convolution(record));
    if (layer == nullptr) return;
    layer->load(pd, weights_and_bias(weights, record->bias, record->bias_count), config);
    wire_fused(layer, record);
}

void Construction::add_deconvolution(const ZQLayerInfo_Conv2DTranspose* record) {
    // Always the reorder for one group: more than one is not this operator's business.
    const std::vector<float> weights = arrays.taps_innermost(
        record->weights, record->weights_count, record->out_shape->channels,
        static_cast<int64_t>(record->kernel_w) * record->kernel_h, record->in_shape->channels);
    ParamDict pd;
    set_window(pd, record->out_shape->channels, record->kernel_w, record->kernel_h, 1, 1,
               record->stride_w, record->stride_h, record->pad_w, record->pad_h);
    pd.set(9, record->has_bias);
    pd.set(10, count_of(weights));
    pd.set(11, record->groups);
    pd.set(12, record->in_shape->channels);
    Layer* layer = make_layer("Deconvolution", record,
                              "Deconvolution" + window_text(record->kernel_w, record->kernel_h,
                                                            record->stride_w, record->stride_h));
    const LayerInferenceConfig config = next_config(&Deconvolution_Float_Fallback_operator_creator);
    if (layer == nullptr) return;
    layer->load(pd, weights_and_bias(weights, record->bias, record->bias_count), config);
    wire_fused(layer, record);
}

/// Id 10 of the two depthwise kinds. With a multiplier above 1 it counts more floats than there are
/// filters; the operators read the front.
template <typename Record>
int64_t depthwise_weight_count(const Record* record) {
    const double count = static_cast<double>(record->out_shape->channels) *
                         record->depth_multiplier * record->kernel_w * record->kernel_h;
    return count > INT_MAX ? 0 : static_cast<int64_t>(count);
}

/// Ids 0 to 11 of the two depthwise kinds, whose records have the same fields.
template <typename Record>
void set_depthwise(ParamDict& pd, const Record* record, int weight_count) {
    set_window(pd, record->out_shape->channels, record->kernel_w, record->kernel_h,
               record->dilation_w, record->dilation_h, record->stride_w, record->stride_h,
               record->pad_w, record->pad_h);
    pd.set(9, record->has_bias);
    pd.set(10, weight_count);
    pd.set(11, record->depth_multiplier != 0
                   ? record->out_shape->channels / record->depth_multiplier
                   : 0);
}

void Construction::add_depthwise(const ZQLayerInfo_DepthWiseConv2D* record) {
    const int64_t taps = static_cast<int64_t>(record->kernel_w) * record->kernel_h;
    const int64_t filters =
        static_cast<int64_t>(record->in_shape->channels) * record->depth_multiplier;
    const std::vector<float> weights = arrays.resized(
        arrays.taps_innermost(record->weights, record->weights_count, 1, taps, filters),
        depthwise_weight_count(record));
    ParamDict pd;
    set_depthwise(pd, record, count_of(weights));
    pd.set(12, record->in_shape->channels);
    Layer* layer =
        make_layer("ConvolutionDepthWise", record,
                   "ConvolutionDepthWise" + window_text(record->kernel_w, record->kernel_h,
                                                        record->stride_w, record->stride_h));
    const LayerInferenceConfig config =
        next_config(&ConvolutionDepthwise_Float_Fallback_operator_creator);
    if (layer == nullptr) return;
    layer->load(pd, weights_and_bias(weights, record->bias, record->bias_count), config);
    wire_fused(layer, record);
}

void Construction::add_depthwise_deconvolution(const ZQLayerInfo_DepthWiseConv2DTranspose* record) {
    const int64_t taps = static_cast<int64_t>(record->kernel_w) * record->kernel_h;
    const std::vector<float> weights = arrays.resized(
        arrays.taps_innermost(record->weights, record->weights_count, record->in_shape->channels,
                              taps, record->depth_multiplier),
        depthwise_weight_count(record));
    ParamDict pd;
    set_depthwise(pd, record, count_of(weights));
    // This kind's display name has height first.
    Layer* layer =
        make_layer("DeconvolutionDepthWise", record,
                   "DeconvolutionDepthWise" + window_text(record->kernel_h, record->kernel_w,
                                                          record->stride_h, record->stride_w));
    const LayerInferenceConfig config =
        next_config(&DeconvolutionDepthwise_Float_Fallback_operator_creator);
    if (layer == nullptr) return;
    layer->load(pd, weights_and_bias(weights, record->bias, record->bias_count), config);
    wire_fused(layer, record);
}

void Construction::add_pixel_shuffle(const ZQLayerInfo_PixelShuffle* record) {
    ParamDict pd;
    pd.set(0, Tarno::half_to_float(record->upscale_factor));
    Layer* layer = make_layer("PixelShuffle", record, "PixelShuffle");
    const LayerInferenceConfig config = next_config(&PixelShuffle_Float_Fallback_operator_creator);
    if (layer == nullptr) return;
    layer->load(pd, no_weights(), config);
    wire(layer, record);
}

void Construction::add_pooling(const ZQLayerInfo_Pooling* record) {
    Layer* layer = make_layer("Pooling", record,
                              "Pooling" + window_text(record->kernel_w, record->kernel_h,
                                                      record->stride_w, record->stride_h));
    const LayerInferenceConfig config = next_config(&Pooling_Float_Fallback_operator_creator);
    if (layer == nullptr) return;
    // The file has 1 for maximum, 0 for average; the operator has it the other way round.
    if (record->pool_type > 1) {
        TN_ASSERT_AT(false && "Invalid tarno pooling type", "tarnonet", 857);
    } else {
        ParamDict pd;
        pd.set(0, record->pool_type == 1 ? 0 : 1);
        pd.set(1, static_cast<int>(record->kernel_w));
        pd.set(2, static_cast<int>(record->kernel_h));
        pd.set(3, static_cast<int>(record->stride_w));
        pd.set(4, static_cast<int>(record->stride_h));
        pd.set(5, static_cast<int>(record->pad_w));
        pd.set(6, static_cast<int>(record->pad_h));
        pd.set(7, static_cast<int>(record->pad_w));
        pd.set(8, static_cast<int>(record->pad_h));
        pd.set(9, 0);
        pd.set(10, 1);
        layer->load(pd, no_weights(), config);
    }
    wire(layer, record);
}

void Construction::add_batch_normalization(const ZQLayerInfo_BatchNormalization* record) {
    ParamDict pd;
    pd.set(0, static_cast<int>(record->in_shape->channels));
    // An integer 0 in the place of a float: its bits are 0.0f, the eps that models have folded in.
    pd.set(1, 0);
    // Slope, mean, variance, bias: the operator's order, not the file's.
    const int64_t count = static_cast<int64_t>(record->bn_count);
    Layer* layer = make_layer("BatchNormalization", record, "BatchNormalization");
    const LayerInferenceConfig config = next_config(&Batchnorm_Float_Fallback_operator_creator);
    if (layer == nullptr) return;
    layer->load(pd,
                SizedWeights({{record->bn_a, count},
                              {record->bn_d, count},
                              {record->bn_c, count},
                              {record->bn_b, count}}),
                config);
    wire(layer, record);
}

void Construction::add_activation(const ZQLayerInfo* record, int kind, float alpha, float beta) {
    ParamDict linear;
    linear.set(0, alpha);
    linear.set(1, beta);
    Layer* layer = make_activation(record->id, kind, linear);
    if (layer == nullptr) return;
    layer->type = "Activation:" + layer->type;
    wire(layer, record);
}

void Construction::add_region(const ZQLayerInfo_Region* record) {
    expect_no_operator(943);
    Region* layer = make_layer<Region>("Region", record, "Region");
    if (layer == nullptr) return;
    layer->num = record->region_a;
    layer->coords = record->region_b;
    layer->classes = record->region_c;
    layer->w = region_grid;
    layer->h = region_grid;
    wire(layer, record);
}

void Construction::add_eltwise(const ZQLayerInfo_ElementWiseOperator* record) {
    Layer* layer = make_layer("Eltwise", record, "Eltwise");
    const LayerInferenceConfig config = next_config(&Elementwise_Float_SSE_operator_creator);
    if (layer == nullptr) return;
    if (record->operator_type == 0 || record->operator_type == 2) {
        ParamDict pd;
        pd.set(0, record->operator_type == 0 ? 1 : 0);
        layer->load(pd, no_weights(), config);
    } else {
        TN_ASSERT_AT(false && "Unsupported tarno eltwise operator", "tarnonet", 1010);
    }
    wire_fused(layer, record);
}

void Construction::add_concat(const ZQLayerInfo_Concatenate* record) {
    expect_no_operator(1068);
    Concat* layer = make_layer<Concat>("Concat", record, "Concat");
    if (layer == nullptr) return;
    layer->axis = record->axis;
    wire(layer, record);
}

void Construction::add_upsampling(const ZQLayerInfo_Upsampling* record) {
    ParamDict pd;
    pd.set(0, Tarno::half_to_float(record->scale));
    pd.set(1, static_cast<int>(record->mode));
    pd.set(2, static_cast<int>(record->align));
    Layer* layer = make_layer("Upsampling", record, "Upsampling");
    const LayerInferenceConfig config = next_config(&Upsampling_Float_Fallback_operator_creator);
    if (layer == nullptr) return;
    layer->load(pd, no_weights(), config);
    wire(layer, record);
}

void Construction::add_tensor_reshape(const ZQLayerInfo_TensorReshape* record) {
    if (configs != nullptr) ++ic_index;
    TensorReshape* layer = make_layer<TensorReshape>("TensorReshape", record, "TensorReshape");
    if (layer == nullptr) return;
    for (int i = 0; i < 4; ++i) layer->dims[i] = record->out_tensor.dims[i];
    const int rank = std::min<int>(record->out_tensor.rank, 11);
    for (int i = 0; i < rank; ++i) layer->dim_count += record->out_tensor.dims[i] != 0 ? 1 : 0;
    wire(layer, record);
}

void Construction::add_full_connection(const ZQLayerInfo_FullConnection* record) {
    ParamDict pd;
    pd.set(0, static_cast<int>(record->num_output));
    pd.set(1, static_cast<int>(record->num_input));
    pd.set(9, static_cast<int>(record->has_bias));
    pd.set(10, static_cast<int>(std::min<int64_t>(record->weights_count, INT_MAX)));
    Layer* layer = make_layer("FullConnection", record, "FullConnection");
    const LayerInferenceConfig config = next_config(&FullConnection_Float_SSE_M1_operator_creator);
    if (layer == nullptr) return;
    layer->load(pd,
                SizedWeights({{record->weights, static_cast<int64_t>(record->weights_count)},
                              {record->bias, static_cast<int64_t>(record->bias_count)}}),
                config);
    wire(layer, record);
}

void Construction::add_lstm(const ZQLayerInfo_LSTM* record) {
    const int64_t input_size = record->input_size;
    const int64_t hidden_size = record->hidden_size;
    const int64_t num_layers = record->num_layers;
    // Only the first of the record's layers is read, whatever `num_layers` says; the counts that
    // the operator asks for grow with it, and what the first layer does not have is 0.
    const auto first_layer = [this, num_layers](float* const* lists, bool present, int64_t count) {
        const bool readable = present && num_layers > 0 && lists != nullptr;
        return arrays.padded(readable ? lists[0] : nullptr, readable ? count : 0,
                             count * num_layers);
    };
    const int64_t w_ih_count = 4 * hidden_size * input_size;
    const int64_t w_hh_count = 4 * hidden_size * hidden_size;
    const int64_t bias_count = 4 * hidden_size;
    const bool reverse = record->bidirectional != 0;
    const bool biased = record->has_bias != 0;
    const std::vector<float> weight_arrays[4] = {
        first_layer(record->w_ih, true, w_ih_count),
        first_layer(record->w_hh, true, w_hh_count),
        first_layer(record->w_ih_reverse, reverse, reverse ? w_ih_count : 0),
        first_layer(record->w_hh_reverse, reverse, reverse ? w_hh_count : 0),
    };
    const std::vector<float> bias_arrays[4] = {
        first_layer(record->b_ih, biased, bias_count),
        first_layer(record->b_hh, biased, bias_count),
        first_layer(record->b_ih_reverse, biased && reverse, bias_count),
        first_layer(record->b_hh_reverse, biased && reverse, bias_count),
    };
    std::vector<SizedWeights::Array> weights, bias;
    for (int i = 0; i < 4; ++i) {
        weights.push_back({weight_arrays[i].data(), count_of(weight_arrays[i])});
        bias.push_back({bias_arrays[i].data(), count_of(bias_arrays[i])});
    }
    ParamDict pd;
    pd.set(0, static_cast<int>(record->input_size));
    pd.set(1, static_cast<int>(record->hidden_size));
    pd.set(2, static_cast<int>(record->num_layers));
    pd.set(3, static_cast<int>(record->has_bias));
    pd.set(4, static_cast<int>(record->bidirectional));
    pd.set(5, static_cast<int>(record->lstm_flag));
    Layer* layer = make_layer("LSTM", record, "LSTM");
    const LayerInferenceConfig config = next_config(&LSTM_Fallback_operator_creator);
    if (layer == nullptr) return;
    layer->load(pd, SizedWeights(weights, bias), config);
    net.lstm_operators.push_back(layer->get_operator());
    wire(layer, record);
}

}  // namespace

void TarnoNet::load_tarno_net_with_inference_config(const ZQNetLoader& loader,
                                                    const LayerInferenceConfig* configs) {
    Construction(*this, loader, configs).run();
}

int TarnoNet::load_tarno_net_with_inference_config(
    const ZQNetLoader& loader, const std::vector<LayerInferenceConfig>& configs) {
    const auto layers_info = loader.getLayersInfo();
    size_t expected = 0;
    for (const unsigned short id : loader.getSequentialLayers()) {
        ++expected;
        const auto found = layers_info.find(id);
        const ZQLayerInfo* zqlayer_info = found != layers_info.end() ? found->second : NULL;
        TN_ASSERT_AT(zqlayer_info != NULL, "tarnonet", 343);
        if (zqlayer_info != NULL && fused_activation(zqlayer_info) != 0) ++expected;
    }
    if (expected != configs.size()) return 1;
    load_tarno_net_with_inference_config(loader, configs.data());
    return 0;
}

}  // namespace TarnoCPU
