// A loaded network and one run of it.
#pragma once

#include <map>
#include <vector>

#include "../platform/export.h"
#include "blob.h"
#include "layer.h"
#include "mat.h"
#include "operator.h"
#include "option.h"
#include "statistician.h"

class ZQNetLoader;

namespace TarnoCPU {

class TarnoNet;

/// One inference run, meant for one frame: takes inputs, owns the tensors of the run, computes what
/// is asked for. Several extractors of one net may run side by side on threads of the host, each
/// with its own allocators or none, as long as the net has no LSTM. The net must outlive it.
class TN_API TarnoNetExtractor {
public:
    TarnoNetExtractor(const TarnoNetExtractor& other) = default;
    TarnoNetExtractor& operator=(const TarnoNetExtractor& other) = default;
    ~TarnoNetExtractor();

    /// Hands in a tensor under the input index of the model file: float, `CHW`, of the size that the
    /// model is to run at. The block is shared, and a layer that works in place on the input (a
    /// region) writes into it. 0, or -1 for an index that is negative, not below the number of blobs,
    /// or not an input of the model.
    int input(int input_index, const Mat& in);

    /// Computes layer `layer_index`, a position in `TarnoNet::layers` (not a layer id and not a
    /// blob index), and assigns its top to `out`. When the top is there already nothing runs;
    /// otherwise all layers from 0 to `layer_index` run. 0 on success; -1, with `out` left alone,
    /// for a position out of range; else the value of the layer that failed (-100), with `out`
    /// whatever the top holds. In light mode extract the last wanted layer, once.
    int extract(int layer_index, Mat& out, Statistician* stats = nullptr);

    /// Position of the last layer, -1 in an empty net.
    int get_last_layer_index() const;

    /// Release tensors when all their readers have run. On in the default option.
    void set_light_mode(bool on);
    void set_num_threads(int count);
    /// The allocator must outlive the extractor and every `Mat` that came out of it.
    void set_blob_allocator(Allocator* allocator);
    void set_workspace_allocator(Allocator* allocator);

protected:
    friend class TarnoNet;
    TarnoNetExtractor(const TarnoNet* net, int blob_count);

private:
    const TarnoNet* net;
    std::vector<Mat> blob_mats;
    Option opt;
};

/// The graph: layers in execution order, blobs between them. Unchanged by inference but for the
/// state of LSTM operators.
///
/// A copy shares the layers: it must not outlive its source, nor be destroyed beside it, unless the
/// `layers` of one of them were emptied first.
class TN_API TarnoNet {
public:
    int net_width;                          ///< in pixels; 0 until `setNetSize`
    int net_height;                         ///< in pixels; 0 until `setNetSize`
    std::vector<Blob> blobs;                ///< blob n is the output of the layer with id n; then
                                            ///< one for each fused activation
    std::vector<Layer*> layers;             ///< in execution order, owned
    std::vector<Operator*> lstm_operators;  ///< operators with state, owned by their layers;
                                            ///< null for one that could not be made
    std::map<int, int> input_blobs;         ///< from input index to blob index

    TarnoNet();
    TarnoNet(const TarnoNet& other) = default;
    TarnoNet& operator=(const TarnoNet& other) = default;
    /// The source is left empty, so nets may live in a vector that grows.
    TarnoNet(TarnoNet&& other) noexcept;
    TarnoNet& operator=(TarnoNet&& other) noexcept;
    virtual ~TarnoNet();

    /// Builds the net from a loaded model; call once, on a new net. `configs` is a table with one
    /// entry for each layer, a fused activation having an entry of its own behind its layer; its
    /// length is not checked. Null selects the default operator for each layer. Damaged models
    /// raise assertions and leave layers whose `forward` fails. The loader may go afterwards.
    void load_tarno_net_with_inference_config(const ZQNetLoader& loader,
                                              const LayerInferenceConfig* configs);

    /// The same with a table whose length is checked: 1, and no change, when it does not fit the
    /// model; else 0.
    int load_tarno_net_with_inference_config(const ZQNetLoader& loader,
                                             const std::vector<LayerInferenceConfig>& configs);

    TarnoNetExtractor create_extractor() const;

    void setNetSize(int width, int height);
    int width() const;
    int height() const;

    /// Clears the state of all LSTM operators.
    void reset_lstm_state();

protected:
    friend class TarnoNetExtractor;
    int forward_layer(int layer_index, std::vector<Mat>& blob_mats, Option& opt,
                      Statistician* stats) const;
};

}  // namespace TarnoCPU
