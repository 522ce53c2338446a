#include "cpu/tarnonet.h"

#include <utility>

#include "cpu/mat_storage.h"
#include "platform/assertion.h"
#include "platform/clock.h"

namespace TarnoCPU {
namespace {

bool is_index_of(int blob, const std::vector<Mat>& blob_mats) {
    return blob >= 0 && static_cast<size_t>(blob) < blob_mats.size();
}

}  // namespace

TarnoNetExtractor::TarnoNetExtractor(const TarnoNet* net, int blob_count)
    : net(net),
      blob_mats(borrow_mats(static_cast<size_t>(blob_count))),
      opt(get_default_option()) {}

TarnoNetExtractor::~TarnoNetExtractor() {
    return_mats(blob_mats);
}

int TarnoNetExtractor::input(int input_index, const Mat& in) {
    if (input_index < 0 || input_index >= static_cast<int>(blob_mats.size())) return -1;
    const auto found = net->input_blobs.find(input_index);
    if (found == net->input_blobs.end()) return -1;
    if (!is_index_of(found->second, blob_mats)) return -1;
    blob_mats[static_cast<size_t>(found->second)] = in;
    return 0;
}

int TarnoNetExtractor::extract(int layer_index, Mat& out, Statistician* stats) {
    if (layer_index < 0 || layer_index >= static_cast<int>(net->layers.size())) return -1;
    const std::vector<int>& tops = net->layers[static_cast<size_t>(layer_index)]->tops;
    if (tops.empty() || !is_index_of(tops[0], blob_mats)) return -100;
    const size_t top = static_cast<size_t>(tops[0]);
    int result = 0;
    if (blob_mats[top].shape.dims() == 0) {
        result = net->forward_layer(layer_index, blob_mats, opt, stats);
    }
    out = blob_mats[top];
    return result;
}

int TarnoNetExtractor::get_last_layer_index() const {
    return static_cast<int>(net->layers.size()) - 1;
}

void TarnoNetExtractor::set_light_mode(bool on) {
    opt.lightmode = on;
}

void TarnoNetExtractor::set_num_threads(int count) {
    opt.num_threads = count;
}

void TarnoNetExtractor::set_blob_allocator(Allocator* allocator) {
    opt.blob_allocator = allocator;
}

void TarnoNetExtractor::set_workspace_allocator(Allocator* allocator) {
    opt.workspace_allocator = allocator;
}

TarnoNet::TarnoNet() : net_width(0), net_height(0) {}

TarnoNet::TarnoNet(TarnoNet&& other) noexcept : TarnoNet() {
    *this = std::move(other);
}

TarnoNet& TarnoNet::operator=(TarnoNet&& other) noexcept {
    if (this == &other) return *this;
    for (Layer* layer : layers) delete layer;
    net_width = other.net_width;
    net_height = other.net_height;
    blobs = std::move(other.blobs);
    layers = std::move(other.layers);
    lstm_operators = std::move(other.lstm_operators);
    input_blobs = std::move(other.input_blobs);
    other.blobs.clear();
    other.layers.clear();
    other.lstm_operators.clear();
    other.input_blobs.clear();
    return *this;
}

TarnoNet::~TarnoNet() {
    for (Layer* layer : layers) delete layer;
}

TarnoNetExtractor TarnoNet::create_extractor() const {
    return TarnoNetExtractor(this, static_cast<int>(blobs.size()));
}

void TarnoNet::setNetSize(int width, int height) {
    net_width = width;
    net_height = height;
}

int TarnoNet::width() const {
    return net_width;
}

int TarnoNet::height() const {
    return net_height;
}

void TarnoNet::reset_lstm_state() {
    for (Operator* op : lstm_operators) {
        if (op != nullptr) op->reset_lstm_state();
    }
}

namespace {

// The tensor of a blob; an empty one for an index that a damaged model made up.
Mat mat_of(const std::vector<Mat>& blob_mats, int blob) {
    return is_index_of(blob, blob_mats) ? blob_mats[static_cast<size_t>(blob)] : Mat();
}

bool is_filled(const std::vector<Mat>& blob_mats, int blob) {
    return is_index_of(blob, blob_mats) && blob_mats[static_cast<size_t>(blob)].shape.dims() != 0;
}

// Whether all readers of a blob have run. A reader whose top is empty has not. A reader without
// exactly one top is an assertion; its line tells the single-tensor path from the other.
bool all_consumers_done(const std::vector<Layer*>& layers, const Blob& blob,
                        const std::vector<Mat>& blob_mats, int assertion_line) {
    // Readers run in their order, so the last one tells most often, without a look at the others:
    // else a blob with many readers would be walked by each of them.
    if (!blob.consumers.empty()) {
        const std::vector<int>& tops = layers[static_cast<size_t>(blob.consumers.back())]->tops;
        if (tops.size() == 1 && !is_filled(blob_mats, tops[0])) return false;
    }
    for (const int consumer : blob.consumers) {
        const std::vector<int>& tops = layers[static_cast<size_t>(consumer)]->tops;
        if (tops.size() != 1) {
            Tarno::ReportAssertion("layers[consumer_layer_index]->tops.size() == 1", "tarnonet",
                                   assertion_line);
            if (tops.empty()) return false;
        }
        if (!is_filled(blob_mats, tops[0])) return false;
    }
    return true;
}

}  // namespace

int TarnoNet::forward_layer(int layer_index, std::vector<Mat>& blob_mats, Option& opt,
                            Statistician* stats) const {
    // Light mode: the blob goes when its last reader has a result. The lookup compares a blob index
    // with the keys of the input map, which are input indices: the blob whose index equals one
    // stays. With input 0 on blob 0, which is what models have, that keeps the input.
    const auto release_when_read = [&](int b, int assertion_line) {
        if (input_blobs.count(b) != 0) return;
        if (b < 0 || static_cast<size_t>(b) >= blobs.size()) return;
        const size_t blob = static_cast<size_t>(b);
        if (all_consumers_done(layers, blobs[blob], blob_mats, assertion_line)) {
            blob_mats[blob].release();
        }
    };

    for (int i = 0; i <= layer_index; ++i) {
        Layer* layer = layers[static_cast<size_t>(i)];
        if (layer->one_blob_only) {
            if (layer->tops.empty() || !is_index_of(layer->tops[0], blob_mats)) return -100;
            const int b = layer->bottoms.empty() ? -1 : layer->bottoms[0];
            const size_t t = static_cast<size_t>(layer->tops[0]);
            // This share keeps the bottom alive until the end of the step.
            const Mat bottom = mat_of(blob_mats, b);
            Mat top;
            int result = 0;
            if (stats == nullptr) {
                result = layer->forward(bottom, top, opt);
            } else {
                const double before = Tarno::wall_clock_milliseconds();
                result = layer->forward(bottom, top, opt);
                const double after = Tarno::wall_clock_milliseconds();
                stats->layer_stats(layer, bottom, top, before, after);
            }
            if (result != 0) return result;
            blob_mats[t] = top;
            if (opt.lightmode) {
                release_when_read(b, 1446);
            }
        } else {
            BorrowedMats borrowed_bottoms(layer->bottoms.size());
            std::vector<Mat>& bottoms = borrowed_bottoms.mats;
            for (size_t k = 0; k < bottoms.size(); ++k) {
                bottoms[k] = mat_of(blob_mats, layer->bottoms[k]);
            }
            TN_ASSERT_AT(layers[i]->tops.size() == 1, "tarnonet", 1467);
            if (layer->tops.empty() || !is_index_of(layer->tops[0], blob_mats)) return -100;
            BorrowedMats borrowed_tops(1);
            std::vector<Mat>& tops = borrowed_tops.mats;
            int result = 0;
            if (stats == nullptr) {
                result = layer->forward(bottoms, tops, opt);
            } else {
                Mat none;
                const double before = Tarno::wall_clock_milliseconds();
                result = layer->forward(bottoms, tops, opt);
                const double after = Tarno::wall_clock_milliseconds();
                stats->layer_stats(layer, bottoms.empty() ? none : bottoms[0],
                                   tops.empty() ? none : tops[0], before, after);
            }
            if (result != 0) return result;
            blob_mats[static_cast<size_t>(layer->tops[0])] = tops.empty() ? Mat() : tops[0];
            if (opt.lightmode) {
                for (const int b : layer->bottoms) release_when_read(b, 1504);
            }
        }
    }
    return 0;
}

}  // namespace TarnoCPU
