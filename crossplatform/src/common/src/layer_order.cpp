#include "crossplatform/src/common/src/layer_order.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace {

struct Node {
    std::vector<unsigned short> readers;  ///< in the order of their records
    bool visited = false;
};

using Graph = std::map<unsigned short, Node>;

Graph graph_of(const std::map<unsigned short, ZQLayerInfo*>& layers_info) {
    Graph graph;
    for (const auto& [id, record] : layers_info) {
        for (unsigned int i = 0; i < record->bottom_count; ++i) {
            graph[record->bottoms[i]].readers.push_back(id);
            graph[id];
        }
    }
    return graph;
}

// Visits what is reachable from `root` and appends each node when all its readers are done. Of the
// readers the one whose edge came last is visited first; the resulting order is part of the
// interface, since a tuning table lists a model's layers in it. The frames are kept by hand: a
// chain can have as many layers as there are ids.
void visit(Graph& graph, Graph::iterator root, std::vector<unsigned short>& finished) {
    struct Frame {
        Graph::iterator node;
        size_t readers_left;
    };
    std::vector<Frame> frames;
    const auto enter = [&frames](Graph::iterator node) {
        node->second.visited = true;
        frames.push_back({node, node->second.readers.size()});
    };
    enter(root);
    while (!frames.empty()) {
        Frame& frame = frames.back();
        if (frame.readers_left == 0) {
            finished.push_back(frame.node->first);
            frames.pop_back();
            continue;
        }
        --frame.readers_left;
        const auto reader = graph.find(frame.node->second.readers[frame.readers_left]);
        if (!reader->second.visited) enter(reader);
    }
}

// How many bottoms of `record` name `id`.
uint64_t mentions(const ZQLayerInfo& record, unsigned short id) {
    return static_cast<uint64_t>(
        std::count(record.bottoms, record.bottoms + record.bottom_count, id));
}

const ZQLayerInfo& record_of(const std::map<unsigned short, ZQLayerInfo*>& layers_info,
                             unsigned short id) {
    const auto found = layers_info.find(id);
    // Not `at`: the text of its exception differs between standard libraries.
    if (found == layers_info.end()) throw std::out_of_range("invalid map<K, T> key");
    return *found->second;
}

}  // namespace

void sort_layers_by_dependency(const std::map<unsigned short, ZQLayerInfo*>& layers_info,
                               std::vector<unsigned short>& sequential_layers) {
    Graph graph = graph_of(layers_info);
    std::vector<unsigned short> finished;
    for (auto node = graph.begin(); node != graph.end(); ++node) {
        if (!node->second.visited) visit(graph, node, finished);
    }
    const size_t count = std::min(finished.size(), sequential_layers.size());
    std::copy_n(finished.rbegin(), count, sequential_layers.begin());
}

void count_reads(const std::map<unsigned short, ZQLayerInfo*>& layers_info,
                 const std::vector<unsigned short>& sequential_layers,
                 std::map<unsigned short, unsigned short>& layers_rcnt) {
    // One pass over all bottoms; a layer's own bottoms are taken off again.
    std::map<unsigned short, uint64_t> mentions_of;
    for (const unsigned short id : sequential_layers) {
        const ZQLayerInfo& record = record_of(layers_info, id);
        for (unsigned int i = 0; i < record.bottom_count; ++i)
            ++mentions_of[record.bottoms[i]];
    }
    for (const unsigned short id : sequential_layers) {
        const auto found = mentions_of.find(id);
        const uint64_t all = found == mentions_of.end() ? 0 : found->second;
        const uint64_t own = mentions(record_of(layers_info, id), id);
        layers_rcnt.emplace(id, static_cast<unsigned short>(all - own));
    }
}
